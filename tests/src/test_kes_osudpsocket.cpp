#include "datagram_receiver.h"
#include "error_capture.h"
#include "kes_osudpsocket.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

namespace {

using kes::kesOsUdpSocket;
using kes::kesString;
using kes_test::DatagramReceiver;

struct DestinationCase {
    const char* name;
    const char* address; // "%u" is the receiver's port
    bool portInAddress;
};

std::ostream& operator<<(std::ostream& out, const DestinationCase& c)
{
    return out << c.name;
}

std::string Fill(const char* pattern, unsigned short port)
{
    std::string text = pattern;
    size_t at = text.find("%u");
    if (at != std::string::npos)
        text.replace(at, 2, std::to_string(port));
    return text;
}

class UdpSocketDestination : public ::testing::TestWithParam<DestinationCase> {};

TEST_P(UdpSocketDestination, DatagramReachesTheReceiver)
{
    const DestinationCase& c = GetParam();
    DatagramReceiver receiver;
    kesOsUdpSocket socket;
    // a port in the address wins over the argument, which then points nowhere
    unsigned short argument = c.portInAddress ? static_cast<unsigned short>(receiver.Port() ^ 1) : receiver.Port();
    ASSERT_EQ(socket.SetTo(Fill(c.address, receiver.Port()).c_str(), argument), kes::kesErrorOk);
    ASSERT_EQ(socket.Send("ping", 4), 4);
    std::string datagram;
    ASSERT_TRUE(receiver.Receive(&datagram));
    EXPECT_EQ(datagram, "ping");
}

INSTANTIATE_TEST_SUITE_P(Addresses, UdpSocketDestination,
                         ::testing::Values(DestinationCase{"dotted_with_port", "127.0.0.1:%u", true},
                                           DestinationCase{"blanks_around_host", "  127.0.0.1 :%u", true},
                                           DestinationCase{"dotted_port_argument", "127.0.0.1", false},
                                           DestinationCase{"name_port_argument", "localhost", false},
                                           DestinationCase{"name_with_port", "localhost:%u", true}),
                         [](const ::testing::TestParamInfo<DestinationCase>& info) {
                             return std::string(info.param.name);
                         });

TEST(UdpSocket, EmptyDatagramIsSent)
{
    DatagramReceiver receiver;
    kesOsUdpSocket socket;
    ASSERT_EQ(socket.SetTo("127.0.0.1", receiver.Port()), kes::kesErrorOk);
    EXPECT_EQ(socket.Send("", 0), 0);
    std::string datagram = "not empty";
    ASSERT_TRUE(receiver.Receive(&datagram));
    EXPECT_EQ(datagram, "");
}

TEST(UdpSocket, EachSendIsOneWholeDatagram)
{
    DatagramReceiver receiver;
    kesOsUdpSocket socket;
    ASSERT_EQ(socket.SetTo("127.0.0.1", receiver.Port()), kes::kesErrorOk);
    std::string big(1400, 'x');
    ASSERT_EQ(socket.Send(big.data(), static_cast<unsigned int>(big.size())), 1400);
    ASSERT_EQ(socket.Send("tail", 4), 4);
    std::string first, second;
    ASSERT_TRUE(receiver.Receive(&first));
    ASSERT_TRUE(receiver.Receive(&second));
    EXPECT_EQ(first, big);
    EXPECT_EQ(second, "tail");
}

TEST(UdpSocket, CloseWithNothingSentIsSilentAndRepeatable)
{
    kes_test::ErrorCapture captured;
    kesOsUdpSocket socket;
    EXPECT_TRUE(socket.IsValid());
    EXPECT_EQ(socket.GetType(), kes::kesOsSocketTypeUdp);
    EXPECT_EQ(socket.Close(), kes::kesErrorOk);
    EXPECT_FALSE(socket.IsValid());
    EXPECT_EQ(socket.Close(), kes::kesErrorOk);
    EXPECT_EQ(captured.Count(), 0u) << captured.Dump();
}

TEST(UdpSocket, ClosedSocketRefusesEveryOperationWithAReport)
{
    kes_test::ErrorCapture captured;
    kesOsUdpSocket socket;
    ASSERT_EQ(socket.Close(), kes::kesErrorOk);
    EXPECT_EQ(socket.Send("x", 1), -1);
    EXPECT_FALSE(socket.SetReceiveTimeOut(100));
    EXPECT_FALSE(socket.SetSendTimeOut(100));
    EXPECT_EQ(socket.GetReceiveTimeOut(), 0u);
    EXPECT_EQ(socket.GetSendTimeOut(), 0u);
    EXPECT_EQ(socket.GetMaxMessageSize(), 0u);
    EXPECT_EQ(captured.CountContaining("Socket is invalid."), 6u);
    EXPECT_FALSE(socket.IsReadyToSend(0));
    EXPECT_FALSE(socket.IsReadyToReceive(0));
    EXPECT_EQ(captured.CountContaining("Socket is not valid."), 2u);
}

TEST(UdpSocket, ResetAfterCloseSendsAgain)
{
    DatagramReceiver receiver;
    kesOsUdpSocket socket;
    ASSERT_EQ(socket.Close(), kes::kesErrorOk);
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
    EXPECT_TRUE(socket.SetReceiveTimeOut(250));
    // the kernel keeps the time in its own ticks: allow their rounding
    EXPECT_NEAR(socket.GetReceiveTimeOut(), 250u, 20u);
    EXPECT_TRUE(socket.SetSendTimeOut(1500));
    EXPECT_NEAR(socket.GetSendTimeOut(), 1500u, 20u);
    EXPECT_TRUE(socket.SetReceiveTimeOut(0));
    EXPECT_EQ(socket.GetReceiveTimeOut(), 0u);
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
        EXPECT_EQ(socket.Close(), kes::kesErrorOk);
    }
    dup2(savedInput, 0);
    close(savedInput);
    std::string datagram;
    ASSERT_TRUE(receiver.Receive(&datagram));
    EXPECT_EQ(datagram, "zero");
}

} // namespace
