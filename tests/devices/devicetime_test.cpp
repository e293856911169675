#include "devices/devicetime.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include "devicetestfixture.h"

namespace vistrel::testing {
namespace {

// An SNTP server on 127.0.0.1 that answers each request with the next scripted fraction of a
// second (as the NTP 32-bit fraction), and stays silent when the script is empty.
class SntpStandIn {
  public:
    static constexpr uint32_t kSeconds = 3'900'000'000u;  // NTP era 0, year 2023

    SntpStandIn() {
        fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        socklen_t length = sizeof(address);
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }

    ~SntpStandIn() {
        stop_ = true;
        thread_.join();
        ::close(fd_);
    }

    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
    void answer(uint32_t fraction) {
        std::lock_guard lock(mutex_);
        script_.push_back(fraction);
    }
    int requests() const { return requests_; }
    bool requests_well_formed() const { return well_formed_; }

    // The NTP fraction whose conversion gives exactly `nanoseconds` (rounded up).
    static uint32_t fraction_of(uint64_t nanoseconds) {
        return static_cast<uint32_t>(
            std::ceil(static_cast<double>(nanoseconds) * 4294967296.0 / 1e9));
    }

  private:
    void serve() {
        while (!stop_) {
            pollfd waiter{fd_, POLLIN, 0};
            if (::poll(&waiter, 1, 20) <= 0) continue;
            uint8_t packet[64];
            sockaddr_in client{};
            socklen_t length = sizeof(client);
            const ssize_t size = ::recvfrom(fd_, packet, sizeof(packet), 0,
                                            reinterpret_cast<sockaddr*>(&client), &length);
            ++requests_;
            const uint8_t request[48] = {0xDB, 0, 10};  // LI 3, version 3, client; poll 10
            if (size != 48 || std::memcmp(packet, request, 48) != 0) well_formed_ = false;
            uint32_t fraction;
            {
                std::lock_guard lock(mutex_);
                if (script_.empty()) continue;
                fraction = script_.front();
                script_.pop_front();
            }
            uint8_t reply[48] = {0x1C};  // version 3, server
            const uint32_t transmitted[2] = {htonl(kSeconds), htonl(fraction)};
            std::memcpy(reply + 40, transmitted, sizeof(transmitted));
            ::sendto(fd_, reply, sizeof(reply), 0, reinterpret_cast<sockaddr*>(&client), length);
        }
    }

    int fd_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> requests_{0};
    std::atomic<bool> well_formed_{true};
    std::mutex mutex_;
    std::deque<uint32_t> script_;
    std::thread thread_;
};

class DeviceTimeTest : public DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        plug(0x100, 1);
        configuration().ntp_server = sntp_.address();
        device_.handle = 0x100;
        device_.timing.Source = TidewellAPITimeSource_SNTP;
    }

    SntpStandIn sntp_;
    devices::DeviceHandle device_;
};

TEST_F(DeviceTimeTest, TimeCloseToASecondBoundaryIsRetriedUpToTenTimes) {
    sntp_.answer(SntpStandIn::fraction_of(100'000'000));
    sntp_.answer(SntpStandIn::fraction_of(200'000'000));
    ASSERT_TRUE(devices::set_device_time(device_));
    EXPECT_EQ(sntp_.requests(), 2);
    EXPECT_TRUE(sntp_.requests_well_formed());
    const TidewellAPITimingTime sent = fake_.last_timing();
    EXPECT_EQ(sent.Source, TidewellAPITimeSource_SNTP);
    EXPECT_EQ(sent.Seconds, SntpStandIn::kSeconds - 2208988800u);
    EXPECT_EQ(sent.Nanoseconds, 200'000'000u);

    // The upper edge: just past it is refused, exactly on it is accepted.
    sntp_.answer(SntpStandIn::fraction_of(700'000'001) + 4);
    sntp_.answer(SntpStandIn::fraction_of(700'000'000));
    ASSERT_TRUE(devices::set_device_time(device_));
    EXPECT_EQ(sntp_.requests(), 4);
    EXPECT_EQ(fake_.last_timing().Nanoseconds, 700'000'000u);

    // A silent server costs ten tries, and the device is left alone.
    fake_.clear_calls();
    EXPECT_FALSE(devices::set_device_time(device_));
    EXPECT_EQ(sntp_.requests(), 14);
    EXPECT_EQ(fake_.call_count("set_timing_time"), 0u);
}

TEST_F(DeviceTimeTest, OtherSourcesGoToTheDeviceUnchangedWithoutTraffic) {
    device_.timing.Source = TidewellAPITimeSource_GPS;
    device_.timing.Seconds = 1234;
    device_.timing.Nanoseconds = 5678;
    ASSERT_TRUE(devices::set_device_time(device_));
    EXPECT_EQ(sntp_.requests(), 0);
    const TidewellAPITimingTime sent = fake_.last_timing();
    EXPECT_EQ(sent.Source, TidewellAPITimeSource_GPS);
    EXPECT_EQ(sent.Seconds, 1234u);
    EXPECT_EQ(sent.Nanoseconds, 5678u);
    fake_.set_result("set_timing_time", TIDEWELLAPI_ERROR);
    EXPECT_FALSE(devices::set_device_time(device_));

    auto finished = pretend_update();
    fake_.clear_calls();
    device_.timing.Source = TidewellAPITimeSource_SNTP;
    EXPECT_FALSE(devices::set_device_time(device_));
    EXPECT_TRUE(fake_.calls().empty());
    EXPECT_EQ(sntp_.requests(), 0);
}

}  // namespace
}  // namespace vistrel::testing
