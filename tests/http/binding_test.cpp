// Choosing the listening address from the binding settings, and what the log says about it.
#include "http/binding.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include "startup/logger.h"
#include "support/temp_dir.h"

namespace vistrel {
namespace {

using http::choose_listen_address;

class BindingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        logger().open(dir_.file("log"));
        config_.reset();
        logger().set_level(kLogTrace);
        config_.port = 12345;
    }
    std::string log() {
        logger().close();
        return testing::read_file(dir_.file("log"));
    }
    testing::TempDir dir_;
    Configuration config_;
};

TEST_F(BindingTest, BindAllIgnoresHostAndInterface) {
    config_.bindall = true;
    config_.host = "127.0.0.1";
    config_.interface = host::NetworkInterface{"lo", -1, {}};
    EXPECT_FALSE(choose_listen_address(config_));
    EXPECT_EQ(log().find("Both host and interface"), std::string::npos);
}

TEST_F(BindingTest, HostWinsOverInterfaceWithAWarning) {
    config_.host = "127.0.0.1";
    config_.interface = host::NetworkInterface{"nosuch0", -1, {}};
    auto address = choose_listen_address(config_);
    ASSERT_TRUE(address);
    auto* ipv4 = reinterpret_cast<sockaddr_in*>(&*address);
    EXPECT_EQ(ipv4->sin_family, AF_INET);
    EXPECT_EQ(ntohs(ipv4->sin_port), 12345);
    EXPECT_EQ(ntohl(ipv4->sin_addr.s_addr), INADDR_LOOPBACK);
    std::string text = log();
    EXPECT_NE(text.find("WARNING: Both host and interface defined, using host field value to bind"),
              std::string::npos);
    EXPECT_NE(text.find("IPv4 host specified : 127.0.0.1"), std::string::npos);
    EXPECT_NE(text.find("Port specified : 12345"), std::string::npos);
    EXPECT_EQ(text.find("Bad interface"), std::string::npos);
}

TEST_F(BindingTest, LoopbackAdapterBindsToLocalhost) {
    config_.interface = host::NetworkInterface{"lo", -1, {}};
    ASSERT_TRUE(choose_listen_address(config_));
    EXPECT_EQ(config_.host, "127.0.0.1");
    EXPECT_NE(log().find("Bindind to localhost for interface lo"), std::string::npos);
}

TEST_F(BindingTest, UnusableAdapterFallsBackToLoopbackWithAnError) {
    config_.interface = host::NetworkInterface{"LO", -1, {}};  // names match exactly
    ASSERT_TRUE(choose_listen_address(config_));
    EXPECT_EQ(config_.host, "127.0.0.1");
    EXPECT_NE(log().find("ERROR: Bad interface 'LO', current interface does not exist, is not "
                         "connected or doesn't have a valid IPv4 address assigned. Binding to "
                         "'localhost'"),
              std::string::npos);
}

TEST_F(BindingTest, IPv6AndEmptyHosts) {
    config_.host = "::1";
    auto address = choose_listen_address(config_);
    ASSERT_TRUE(address);
    EXPECT_EQ(address->ss_family, AF_INET6);
    config_.host = "";
    EXPECT_FALSE(choose_listen_address(config_));
    std::string text = log();
    EXPECT_NE(text.find("IPv6 host specified : ::1"), std::string::npos);
    EXPECT_NE(text.find("Binding to all for the given config"), std::string::npos);
}

}  // namespace
}  // namespace vistrel
