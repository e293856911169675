#include "host/interfaces.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace vistrel::host {
namespace {

TEST(Interfaces, LoopbackAdapterAndAddressTexts) {
    EXPECT_TRUE(adapter_exists("lo"));
    EXPECT_FALSE(adapter_exists("LO"));
    EXPECT_EQ(adapter_address("lo"), "127.0.0.1");
    EXPECT_EQ(adapter_address("nosuch0"), "");

    EXPECT_TRUE(is_ipv4_address("192.168.1.20"));
    EXPECT_FALSE(is_ipv4_address("192.168.1.256"));
    EXPECT_FALSE(is_ipv4_address("localhost"));
    EXPECT_FALSE(is_ipv4_address("::1"));
    EXPECT_TRUE(is_ipv6_address("::1"));
    EXPECT_FALSE(is_ipv6_address("127.0.0.1"));
}

TEST(Interfaces, DocumentLeavesOutLoopback) {
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
