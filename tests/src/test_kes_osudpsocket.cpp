#include "kes_osudpsocket.h"

#include "datagram_receiver.h"
#include "error_capture.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

namespace {

using kes::kesOsUdpSocket;
using kes_test::DatagramReceiver;

struct DestinationCase {
    const char* name;
    std::string address; // the receiver's port follows when portInAddress
    bool portInAddress;
};

std::ostream& operator<<(std::ostream& out, const DestinationCase& c)
{
    return out << c.name;
}

class UdpSocketDestination : public ::testing::TestWithParam<DestinationCase> {};

TEST_P(UdpSocketDestination, DatagramsReachTheReceiverWhole)
{
    const DestinationCase& c = GetParam();
    DatagramReceiver receiver;
    kesOsUdpSocket socket;
    // a port in the address wins over the argument, which then points elsewhere
    std::string address = c.portInAddress ? c.address + std::to_string(receiver.Port()) : c.address;
    unsigned short argument = c.portInAddress ? static_cast<unsigned short>(receiver.Port() ^ 1) : receiver.Port();
    ASSERT_EQ(socket.SetTo(address.c_str(), argument), kes::kesErrorOk);
    std::string big(1400, 'x');
    EXPECT_EQ(socket.Send(big.data(), 1400), 1400);
    EXPECT_EQ(socket.Send("", 0), 0);
    std::string first, second;
    ASSERT_TRUE(receiver.Receive(&first));
    ASSERT_TRUE(receiver.Receive(&second));
    EXPECT_EQ(first, big);
    EXPECT_EQ(second, "");
}

INSTANTIATE_TEST_SUITE_P(Addresses, UdpSocketDestination,
                         ::testing::Values(DestinationCase{"dotted_with_port", "127.0.0.1:", true},
                                           DestinationCase{"blanks_around_host", "  127.0.0.1 :", true},
                                           DestinationCase{"dotted", "127.0.0.1", false},
                                           DestinationCase{"name", "localhost", false},
                                           DestinationCase{"name_with_port", "localhost:", true}),
                         [](const ::testing::TestParamInfo<DestinationCase>& info) { return info.param.name; });

TEST(UdpSocket, CloseIsSilentAndRepeatableThenEverythingIsRefusedUntilReset)
{
    DatagramReceiver receiver;
    kesOsUdpSocket socket;
    {
        kes_test::ErrorCapture captured;
        EXPECT_EQ(socket.Close(), kes::kesErrorOk);
        EXPECT_EQ(socket.Close(), kes::kesErrorOk);
        EXPECT_EQ(captured.Count(), 0u) << captured.Dump();

        EXPECT_EQ(socket.Send("x", 1), -1);
        EXPECT_FALSE(socket.SetReceiveTimeOut(100));
        EXPECT_EQ(socket.GetSendTimeOut(), 0u);
        EXPECT_EQ(socket.GetMaxMessageSize(), 0u);
        EXPECT_EQ(captured.CountContaining("Socket is invalid."), 4u);
        EXPECT_FALSE(socket.IsReadyToSend(0));
        EXPECT_EQ(captured.CountContaining("Socket is not valid."), 1u);
    }
    ASSERT_EQ(socket.Reset(), kes::kesErrorOk);
    ASSERT_EQ(socket.SetTo("127.0.0.1", receiver.Port()), kes::kesErrorOk);
    EXPECT_EQ(socket.Send("again", 5), 5);
    std::string datagram;
    ASSERT_TRUE(receiver.Receive(&datagram));
    EXPECT_EQ(datagram, "again");
}

TEST(UdpSocket, UnknownHostIsReportedAndTheSendGoesNowhere)
{
    kes_test::ErrorCapture captured;
    kesOsUdpSocket socket;
    EXPECT_EQ(socket.SetTo("no-such-host.invalid", 9), kes::kesErrorNetwork);
    EXPECT_EQ(captured.CountContaining("gethostbyname failed"), 1u);
    // the destination is the all-ones address: refused, never a crash
    EXPECT_LE(socket.Send("x", 1), 1);
}

TEST(UdpSocket, TimeOutsReadBackAndReadinessAnswers)
{
    kesOsUdpSocket socket;
    EXPECT_EQ(socket.GetType(), kes::kesOsSocketTypeUdp);
    // the kernel keeps the time in its own ticks: allow their rounding
    EXPECT_TRUE(socket.SetReceiveTimeOut(250));
    EXPECT_NEAR(socket.GetReceiveTimeOut(), 250u, 20u);
    EXPECT_TRUE(socket.SetSendTimeOut(1500));
    EXPECT_NEAR(socket.GetSendTimeOut(), 1500u, 20u);
    EXPECT_GT(socket.GetMaxMessageSize(), 0u);
    EXPECT_TRUE(socket.IsReadyToSend(0));
    EXPECT_FALSE(socket.IsReadyToReceive(10));
}

// With standard input closed the system hands out descriptor 0, which the
// socket must not mistake for "no socket".
TEST(UdpSocket, DescriptorZeroIsMovedOutOfTheWay)
{
    DatagramReceiver receiver;
    int savedInput = dup(0);
    ASSERT_GE(savedInput, 0);
    close(0);
    {
        kesOsUdpSocket socket;
        EXPECT_TRUE(socket.IsValid());
        EXPECT_EQ(socket.SetTo("127.0.0.1", receiver.Port()), kes::kesErrorOk);
        EXPECT_EQ(socket.Send("zero", 4), 4);
    }
    dup2(savedInput, 0);
    close(savedInput);
    std::string datagram;
    ASSERT_TRUE(receiver.Receive(&datagram));
    EXPECT_EQ(datagram, "zero");
}

} // namespace
