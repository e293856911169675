#include "host/interfaces.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace vistrel::host {
namespace {

// Address texts are read through the dashboard's filters and the --host option; here, what
// only a range check refuses.
TEST(Interfaces, LoopbackIsFoundButLeftOutOfTheDocument) {
    EXPECT_TRUE(adapter_exists("lo"));
    EXPECT_FALSE(adapter_exists("LO"));
    EXPECT_EQ(adapter_address("lo"), "127.0.0.1");
    EXPECT_EQ(adapter_address("nosuch0"), "");
    EXPECT_FALSE(is_ipv4_address("192.168.1.256"));

    nlohmann::json list = nlohmann::json::parse(interfaces_document());
    ASSERT_TRUE(list.is_array());
    int expected_id = 0;
    for (const auto& adapter : list) {
        EXPECT_NE(adapter["name"], "lo");
        EXPECT_EQ(adapter["id"], expected_id++);
        EXPECT_EQ(adapter["capturing"], false);
    }
}

}  // namespace
}  // namespace vistrel::host
