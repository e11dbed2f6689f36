// The byte channels against real loopback peers: the TCP client, the datagram
// sender, the serial line on a pseudo-terminal, and the bus channel over them.
#include "kes_energysocket.h"
#include "kes_osudpsocket.h"

#include "datagram_receiver.h"
#include "error_capture.h"
#include "loopback.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace kes;
using kes_test::Bytes;
using kes_test::ErrorCapture;
using kes_test::LoopbackServer;
using kes_test::PeerThread;
using kes_test::PtyPair;

namespace {

typedef std::chrono::steady_clock Clock;
typedef kesOsSerialCom S;
typedef std::vector<std::string> Texts;

const Bytes REQUEST = {0x01, 0x03, 0x00, 0x64, 0x00, 0x02, 0x85, 0xD4};
const Bytes REPLY = {0x01, 0x03, 0x04, 0x00, 0x01, 0x00, 0x02, 0x2A, 0x32};

long elapsed_ms(Clock::time_point i_start)
{
    return (long)std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - i_start).count();
}

// Several outcomes as one text, blank-separated, so that a row compares them at once.
// Braces take the calls in order, left to right.
struct Seen {
    template <typename... T>
    Seen(const T&... i_values)
    {
        std::ostringstream out;
        ((out << i_values << ' '), ...);
        text = out.str();
        text.pop_back();
    }
    std::string text;
};
#define SEEN(...) (Seen{__VA_ARGS__}.text)

// Exactly these records, each known by a piece of its text.
void expect_records(const ErrorCapture& i_errors, const Texts& i_texts, const std::string& i_name = "")
{
    EXPECT_EQ(i_texts.size(), i_errors.Count()) << i_name << "\n" << i_errors.Dump();
    for (const std::string& text : i_texts)
        EXPECT_TRUE(i_errors.Contains(text)) << i_name << ": " << text << "\n" << i_errors.Dump();
}

// A gateway that sends its bytes, the second part 10 ms later, then closes or holds the
// connection until it goes.
struct Gateway {
    explicit Gateway(const Bytes& i_first, const Bytes& i_second = {}, bool i_closes = false)
    {
        server.Serve([this, i_first, i_second, i_closes](int fd, int) {
            kes_test::WriteAll(fd, i_first);
            if (!i_second.empty()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                kes_test::WriteAll(fd, i_second);
            }
            if (!i_closes)
                done.Wait(5000);
        });
    }
    ~Gateway() { done.Open(); }
    std::string Address() const { return server.Address(); }
    kes_test::Gate done;
    LoopbackServer server;
};

kesEError open_8n1(kesOsSerialCom& io_port, const std::string& i_path)
{
    return io_port.Open(i_path.c_str(), S::Baud9600, S::DataBits8, S::ParityNone, S::StopBitsOne, S::FlowControlNone);
}

class HookedPort : public kesOsSerialCom {
public:
    HookedPort() : kesOsSerialCom(false) {}
    std::string calls;

protected:
    void OnConnectionClose() override { calls += "close;"; }
    void OnConnectionOpen() override { calls += "open;"; }
};

std::atomic<int> g_sigpipes{0};

} // namespace

TEST(OsTcpSocket, AddressFormsAndFailedConnections)
{
    // '#' stands for the server's port, '!' for a port nobody listens on; argument 0xFFFF is the server's port
    struct Case {
        const char* address;
        unsigned short argument;
        const char* record; // null when it connects
    };
    const Case cases[] = {
        {"127.0.0.1:#", 0, nullptr},
        {"127.0.0.1:#", 1, nullptr}, // the port in the text wins
        {" 127.0.0.1 : #", 0, nullptr},
        {"127.0.0.1", 0xFFFF, nullptr},
        {"localhost:#", 0, nullptr},
        {"no-such-host.invalid:#", 0, "gethostbyname failed"},
        {"127.0.0.1:!", 0, "Can not connect socket\nStd Error "},
    };
    unsigned short gone = LoopbackServer().Port();
    for (const Case& c : cases) {
        Gateway server({});
        std::string address = c.address;
        size_t at = address.find_first_of("#!");
        if (at != std::string::npos)
            address.replace(at, 1, std::to_string(address[at] == '#' ? server.server.Port() : gone));
        ErrorCapture errors;
        kesOsTcpSocket socket;
        kesEError result = socket.Open(address.c_str(), c.argument == 0xFFFF ? server.server.Port() : c.argument);
        // a failure keeps the socket for a retry
        EXPECT_EQ(SEEN(!c.record, !c.record, true), SEEN(result == kesErrorOk, socket.IsOpen(), socket.IsValid()))
            << c.address;
        expect_records(errors, c.record ? Texts{c.record} : Texts{}, c.address);
        EXPECT_EQ(std::vector<unsigned int>(c.record ? 1 : 0, kesErrorNetwork), errors.Codes());
        EXPECT_EQ(kesErrorOk, c.record ? socket.Open(server.Address().c_str(), 0) : kesErrorOk) << c.address;
        EXPECT_EQ(server.Address(), socket.GetPeerName()) << c.address;
    }
}

TEST(OsTcpSocket, ReplyShapes)
{
    // the reply's parts and whether the peer closes; the result, the count, whether the socket stays open
    struct Case {
        Bytes first, second;
        bool closes;
        const char* seen;
    };
    const Case cases[] = {
        {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}, {}, false, "10 10 1"},
        {{0, 1, 2, 3}, {4, 5, 6, 7, 8, 9}, false, "10 10 1"},
        {{0, 1, 2, 3}, {}, false, "-2 4 1"},
        {{}, {}, false, "-2 0 1"},
        {{0, 1, 2, 3}, {}, true, "-3 4 0"},
        {{}, {}, true, "-3 0 0"},
    };
    for (const Case& c : cases) {
        Gateway gateway(c.first, c.second, c.closes);
        ErrorCapture errors;
        kesOsTcpSocket socket;
        ASSERT_EQ(kesErrorOk, socket.Open(gateway.Address().c_str(), 0));
        ASSERT_TRUE(socket.SetReceiveTimeOut(60));
        unsigned char buffer[10] = {0};
        int received = -100;
        EXPECT_EQ(c.seen, SEEN(socket.Receive(buffer, sizeof(buffer), &received), received, socket.IsOpen()));
        for (int i = 0; i < received; ++i)
            EXPECT_EQ(i, buffer[i]) << c.seen;
        // neither a time-out nor a closing peer is a failure to log
        expect_records(errors, {}, c.seen);
    }
}

TEST(OsTcpSocket, SendToAVanishedPeerIsEpipeWithoutSignal)
{
    struct sigaction counting = {}, saved = {};
    counting.sa_handler = [](int) { ++g_sigpipes; };
    sigaction(SIGPIPE, &counting, &saved);
    Gateway gateway({}, {}, true);
    kesOsTcpSocket socket;
    ASSERT_EQ(kesErrorOk, socket.Open(gateway.Address().c_str(), 0));
    // the peer's FIN is here once the socket reads as ready
    ASSERT_TRUE(socket.IsReadyToReceive(2000));
    ErrorCapture errors;
    int result = 0;
    // the first send is answered by a reset, a later one fails
    for (int attempt = 0; attempt < 100 && result != -1; ++attempt)
        if ((result = socket.Send(REQUEST.data(), 8)) != -1)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(SEEN(-1, 0), SEEN(result, g_sigpipes.load()));
    expect_records(errors, {"send error\nStd Error 32 "});
    sigaction(SIGPIPE, &saved, nullptr);
}

TEST(OsTcpSocket, LifeOfAConnection)
{
    // the first connection notes its end, the second sends five bytes, the third takes a big send
    std::atomic<bool> firstSawEnd{false};
    Bytes got, big(100000);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = (unsigned char)(i * 7);
    LoopbackServer server;
    server.Serve(
        [&](int fd, int index) {
            if (index == 1)
                kes_test::WriteAll(fd, Bytes{1, 2, 3, 4, 5});
            Bytes read = kes_test::ReadFor(fd, index == 2 ? big.size() : 1, 3000);
            firstSawEnd = firstSawEnd || (index == 0 && read.empty());
            if (index == 2)
                got = read;
        },
        3);
    kesOsTcpSocket socket;
    ErrorCapture errors;
    ASSERT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    // the kernel keeps time-outs in clock ticks
    EXPECT_TRUE(socket.SetReceiveTimeOut(250) && socket.SetSendTimeOut(1500) && socket.SetKeepAlive(true));
    EXPECT_NEAR(250, (int)socket.GetReceiveTimeOut(), 10);
    EXPECT_NEAR(1500, (int)socket.GetSendTimeOut(), 10);
    EXPECT_EQ("1 0 0 0", SEEN(socket.GetKeepAlive(), socket.GetName().find("127.0.0.1:"), socket.IsReadyToReceive(0),
                              socket.Send("", 0)));
    // a second Open drops the first connection; a flush drops what waits and keeps the time-out
    ASSERT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    ASSERT_TRUE(socket.SetReceiveTimeOut(700) && socket.IsReadyToReceive(2000));
    int count = -1;
    EXPECT_EQ(kesErrorOk, socket.FlushReceive(30, &count));
    EXPECT_NEAR(700, (int)socket.GetReceiveTimeOut(), 10);
    EXPECT_EQ("5 0 0 0 0 0", SEEN(count, socket.IsReadyToReceive(0), socket.Close(), socket.Close(), socket.IsValid(),
                                  socket.IsOpen()));
    expect_records(errors, {}, "open");
    unsigned char byte = 0;
    EXPECT_EQ("0  0 -1 -1", SEEN(socket.SetReceiveTimeOut(100), socket.GetPeerName(), socket.GetConnectionTime(),
                                 socket.Receive(&byte, 1, nullptr), socket.Send(&byte, 1)));
    EXPECT_EQ("3 2", SEEN(errors.CountContaining("Socket is invalid."), errors.CountContaining("Socket is close.")));
    EXPECT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    EXPECT_EQ(100000, socket.Send(big.data(), (unsigned int)big.size()));
    server.Join();
    EXPECT_EQ("1 3", SEEN(firstSawEnd.load(), server.Accepted()));
    EXPECT_EQ(big, got);
}

// With standard input closed the system hands out descriptor 0, which would read as "no socket".
TEST(OsSockets, DescriptorZeroIsNeverHeld)
{
    kes_test::DatagramReceiver receiver;
    int savedStdin = dup(0);
    close(0);
    std::string outcome;
    {
        kesOsTcpSocket tcp;
        kesOsUdpSocket udp;
        outcome = SEEN(tcp.IsValid(), udp.IsValid(), udp.SetTo("127.0.0.1", receiver.Port()), udp.Send("zero", 4),
                       fcntl(0, F_GETFD));
    }
    dup2(savedStdin, 0);
    close(savedStdin);
    std::string datagram;
    EXPECT_EQ("1 1 0 4 -1 1 zero", outcome + " " + SEEN(receiver.Receive(&datagram), datagram));
}

TEST(UdpSocket, WholeDatagramsThenRefusalsOnceClosed)
{
    // a port in the address wins over the argument, which then points elsewhere
    kes_test::DatagramReceiver receiver;
    std::string big(1400, 'x'), first, second;
    for (std::string address : {"127.0.0.1:" + std::to_string(receiver.Port()), std::string("localhost")}) {
        kesOsUdpSocket socket;
        ASSERT_EQ(kesErrorOk,
                  socket.SetTo(address.c_str(), receiver.Port() ^ (address.find(':') != std::string::npos)));
        EXPECT_EQ("1400 0", SEEN(socket.Send(big.data(), 1400), socket.Send("", 0)));
        EXPECT_EQ("1 1 0", SEEN(receiver.Receive(&first), receiver.Receive(&second), second.size())) << address;
        EXPECT_EQ(big, first);
    }
    kesOsUdpSocket socket;
    EXPECT_TRUE(socket.SetReceiveTimeOut(250) && socket.SetSendTimeOut(1500));
    EXPECT_NEAR(250u, socket.GetReceiveTimeOut(), 20u);
    EXPECT_NEAR(1500u, socket.GetSendTimeOut(), 20u);
    EXPECT_EQ(SEEN(kesOsSocketTypeUdp, 1, 1, 0), SEEN(socket.GetType(), socket.GetMaxMessageSize() > 0,
                                                      socket.IsReadyToSend(0), socket.IsReadyToReceive(5)));
    ErrorCapture errors;
    EXPECT_EQ(kesErrorNetwork, socket.SetTo("no-such-host.invalid", 9));
    // the destination is the all-ones address: refused, never a crash
    EXPECT_LE(socket.Send("x", 1), 1);
    EXPECT_EQ(1u, errors.CountContaining("gethostbyname failed"));
    errors.Clear();
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk), SEEN(socket.Close(), socket.Close()));
    expect_records(errors, {}, "close is silent");
    EXPECT_EQ("-1 0 0 0 0", SEEN(socket.Send("x", 1), socket.SetReceiveTimeOut(100), socket.GetSendTimeOut(),
                                 socket.GetMaxMessageSize(), socket.IsReadyToSend(0)));
    EXPECT_EQ("4 1",
              SEEN(errors.CountContaining("Socket is invalid."), errors.CountContaining("Socket is not valid.")));
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk, 5, 1, "again"),
              SEEN(socket.Reset(), socket.SetTo("127.0.0.1", receiver.Port()), socket.Send("again", 5),
                   receiver.Receive(&first), first));
}

TEST(OsSerialCom, LineSettingsGiveTheByteRate)
{
    struct Case {
        S::EBaudRate baud;
        S::EDataBits dataBits;
        S::EParity parity;
        S::EStopBits stopBits;
        const char* rate; // bits a byte, bytes a second, ms for 8 bytes
    };
    const Case cases[] = {
        {S::Baud9600, S::DataBits8, S::ParityNone, S::StopBitsOne, "10 960 8"},
        {S::Baud9600, S::DataBits8, S::ParityEven, S::StopBitsOne, "11 872 9"},
        {S::Baud9600, S::DataBits7, S::ParityNone, S::StopBitsTwo, "10 960 8"},
        {S::Baud300, S::DataBits5, S::ParityNone, S::StopBitsOne, "7 42 190"},
        {S::Baud115200, S::DataBits8, S::ParityNone, S::StopBitsOne, "10 11520 0"},
        {S::Baud57600, S::DataBits6, S::ParityOdd, S::StopBitsTwo, "10 5760 1"},
    };
    for (const Case& c : cases) {
        PtyPair pty;
        kesOsSerialCom port(false);
        EXPECT_EQ(0u, port.GetMaxBytesPerSecond());
        ASSERT_EQ(kesErrorOk,
                  port.Open(pty.LinkPath().c_str(), c.baud, c.dataBits, c.parity, c.stopBits, S::FlowControlNone));
        EXPECT_EQ(c.rate, SEEN((int)port.GetBitsPerByte(), port.GetMaxBytesPerSecond(), port.GetReceiveWaitTime(8)));
    }
    // a send holds the caller until the bytes have left the line: 8 bytes at 960 a second take 8333 us
    PtyPair pty;
    kesOsSerialCom port(false);
    ASSERT_EQ(kesErrorOk, open_8n1(port, pty.LinkPath()));
    Clock::time_point start = Clock::now();
    EXPECT_EQ(8, port.Send(REQUEST.data(), 8));
    EXPECT_GE(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count(), 8333);
    EXPECT_EQ(REQUEST, kes_test::ReadFor(pty.Master(), 8, 1000));
    EXPECT_EQ(0, port.Send(REQUEST.data(), 0));
}

TEST(OsSerialCom, ReceiveGivesWhatCameWithinTheTime)
{
    // a partial reply comes once the time from the call's start is up, never -2
    struct Case {
        unsigned char first, second; // bytes 1, 2... at once, then the next ones 10 ms later
        unsigned int length;
        unsigned long timeOut;
        int expected;
    };
    const Case cases[] = {{10, 0, 10, 200, 10}, {4, 0, 10, 30, 4}, {5, 0, 9, 30, 5},
                          {0, 0, 9, 20, 0},     {3, 6, 9, 500, 9}, {2, 0, 2, 0, 2}}; // a time-out of 0 reads once
    for (const Case& c : cases) {
        Bytes bytes(c.first + c.second);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = (unsigned char)(i + 1);
        PtyPair pty;
        kesOsSerialCom port(false);
        ASSERT_EQ(kesErrorOk, open_8n1(port, pty.LinkPath()));
        kes_test::WriteAll(pty.Master(), bytes.data(), c.first);
        ASSERT_TRUE(c.first == 0 || port.IsReadyToReceive(1000));
        PeerThread peer([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(c.second ? 10 : 0));
            kes_test::WriteAll(pty.Master(), bytes.data() + c.first, c.second);
        });
        ErrorCapture errors;
        unsigned char buffer[16] = {0};
        Clock::time_point start = Clock::now();
        int got = port.Receive(buffer, c.length, 5, c.timeOut);
        long took = elapsed_ms(start);
        peer.Join();
        EXPECT_EQ(c.expected, got) << c.length << " " << c.timeOut;
        EXPECT_GE(took, got < (int)c.length ? (long)c.timeOut : 0) << c.length;
        EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + c.expected), Bytes(buffer, buffer + c.expected));
        expect_records(errors, {}, std::to_string(c.length));
    }
}

TEST(OsSerialCom, OpenPortReadsFlushesAndHasNoModemLines)
{
    PtyPair pty;
    HookedPort port;
    ErrorCapture errors;
    // a failed speed keeps the descriptor until the next open
    EXPECT_NE(kesErrorOk, port.Open(pty.LinkPath().c_str(), S::EBaudRate(12345), S::DataBits8, S::ParityNone,
                                    S::StopBitsOne, S::FlowControlNone));
    expect_records(errors, {"cfsetospeed(...) == -1 at " + pty.LinkPath()});
    EXPECT_EQ("1 |", SEEN(port.IsValid(), port.calls + "|"));
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk), SEEN(open_8n1(port, pty.LinkPath()), open_8n1(port, pty.LinkPath())));
    errors.Clear();
    // the plain read: nothing waiting is -2, silently
    unsigned char byte = 0;
    EXPECT_EQ("-2 0", SEEN(port.Receive(&byte, 1), port.IsReadyToReceive(0)));
    kes_test::WriteAll(pty.Master(), Bytes{0x42});
    EXPECT_EQ("1 1 66", SEEN(port.IsReadyToReceive(1000), port.Receive(&byte, 1), (int)byte));
    for (bool timed : {true, false}) {
        kes_test::WriteAll(pty.Master(), Bytes(20, 0x55));
        ASSERT_TRUE(port.IsReadyToReceive(1000));
        EXPECT_EQ("0 -2", SEEN(timed ? (int)port.Flush(0, 20) : port.Flush(), port.Receive(&byte, 1))) << timed;
    }
    expect_records(errors, {}, "reads");
    // a pseudo-terminal has no modem lines: the failure is reported with the device
    EXPECT_EQ(SEEN(kesErrorInvalidArgument, 1, 1),
              SEEN(port.GetDTR(nullptr), port.GetRTS(&byte) != kesErrorOk, port.SetDTR(1) != kesErrorOk));
    EXPECT_EQ("1 2", SEEN(errors.CountContaining("o_pVal == 0"),
                          errors.CountContaining("ioctl(...) == -1 at " + pty.LinkPath())));
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk, "close;open;close;open;close;"),
              SEEN(port.Close(), port.Close(), port.calls));
}

TEST(OsSerialCom, AdapterPulledOutOrMissing)
{
    PtyPair pty;
    kesOsSerialCom port(false);
    ASSERT_EQ(kesErrorOk, open_8n1(port, pty.LinkPath()));
    pty.CloseMaster();
    ErrorCapture errors;
    unsigned char buffer[9] = {0};
    // a hung-up line reads as no data until the time limit; the write finds the loss, and
    // without auto-reconnect the port stays as it was for its owner to close
    EXPECT_EQ(SEEN(0, -1, -3, 1, kesErrorOk, 0),
              SEEN(port.Receive(buffer, sizeof(buffer), 5, 20), port.Flush(), port.Send(buffer, 8), port.IsValid(),
                   port.Close(), port.IsValid()));
    expect_records(errors, {"Can not flush serial\nStd Error 5 ", "write(...) == -1\nStd Error 5 "});
    kes_test::TempDir dir;
    std::string missing = dir.Path() + "/dev/ttyUSB7";
    errors.Clear();
    EXPECT_EQ("0 0", SEEN(open_8n1(port, missing) == kesErrorOk, port.IsValid()));
    expect_records(errors, {"open(...) == -1 at " + missing + "\nStd Error 2 "});
    errors.Clear();
    EXPECT_EQ("-1 -1 -1 -1 0 1", SEEN(port.Send(buffer, 1), port.Receive(buffer, 1), port.Receive(buffer, 1, 5, 10),
                                      port.Flush(), port.IsReadyToReceive(0), port.GetRTS(buffer) != kesErrorOk));
    EXPECT_EQ(6u, errors.CountContaining("Invalid handle"));
    // the retrying thread ends with its port, without waiting out its period
    Clock::time_point start = Clock::now();
    EXPECT_NE(kesErrorOk, open_8n1(*std::make_unique<kesOsSerialCom>(true), missing));
    EXPECT_LT(elapsed_ms(start), 300);
}

TEST(OsSerialCom, AutoReconnectRetriesUntilTheAdapterReturns)
{
    PtyPair pty;
    kesOsSerialCom port(true);
    ASSERT_EQ(SEEN(1, kesErrorOk), SEEN(port.GetAutoReconnect(), open_8n1(port, pty.LinkPath())));
    ErrorCapture errors;
    pty.CloseMaster();
    // the port closes itself; a thread retries every 500 ms, and goes on after a failure
    EXPECT_EQ("-3 0", SEEN(port.Send(REQUEST.data(), 8), port.IsValid()));
    Clock::time_point start = Clock::now();
    while (errors.CountContaining("open(...) == -1 at " + pty.LinkPath()) == 0 && elapsed_ms(start) < 3000)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(pty.Replug());
    while (!port.IsValid() && elapsed_ms(start) < 5000)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(8, port.Send(REQUEST.data(), 8)) << errors.Dump();
    EXPECT_EQ(REQUEST, kes_test::ReadFor(pty.Master(), 8, 1000));
}

TEST(EnergySocket, AddressPicksTheChannel)
{
    PtyPair mixed("x/DEV/TtYuSb3"), named("dev/ttyUSB-plant-north");
    Gateway gateway({});
    kes_test::TempDir dir;
    // opens, serial, open, valid, time-out taken; the last two: a missing adapter keeps its port
    // object without a handle, and without /dev/ before the name the socket is made before the look-up
    const std::pair<std::string, const char*> cases[] = {
        {mixed.LinkPath(), "1 1 1 1 1"},  {named.LinkPath(), "1 1 1 1 1"},
        {gateway.Address(), "1 0 1 1 1"}, {dir.Path() + "/dev/ttyUSB9", "0 1 0 0 1"},
        {"ttyUSB0", "0 0 0 1 1"},
    };
    for (const auto& c : cases) {
        ErrorCapture errors;
        kesEnergySocket channel;
        EXPECT_EQ(c.second, SEEN(channel.Open(c.first.c_str(), 502) == kesErrorOk, channel.IsSerial(), channel.IsOpen(),
                                 channel.IsValid(), channel.SetReceiveTimeOut(100)))
            << c.first;
    }
    // a channel never opened has nothing, silently
    ErrorCapture errors;
    kesEnergySocket channel;
    unsigned char byte = 0;
    int received = 7;
    EXPECT_EQ(SEEN(0, 0, 0, 0, -1, -1, 0, kesErrorOk),
              SEEN(channel.SetReceiveTimeOut(100), channel.GetReceiveTimeOut(), channel.IsOpen(), channel.IsValid(),
                   channel.Send(&byte, 1), channel.Receive(&byte, 1, &received), received, channel.Close()));
    expect_records(errors, {}, "never opened");
}

TEST(EnergySocket, SerialEchoShapes)
{
    // what the peer echoes (none: it stays quiet, so that the reply does not pass for an echo), the
    // result of the send, its record
    struct Case {
        std::function<Bytes(const Bytes&)> echo;
        int sendResult;
        const char* record;
    };
    const Case cases[] = {
        {[](const Bytes& r) { return r; }, 8, nullptr},
        {nullptr, 0,
         "Echo not equal\n[0x01][0x00]\n[0x03][0x00]\n[0x00][0x00]\n[0x64][0x00]\n[0x00][0x00]\n[0x02][0x00]\n"
         "[0x85][0x00]\n[0xD4][0x00]\n"},
        {[](const Bytes& r) { return Bytes(r.begin(), r.begin() + 5); }, 5,
         "Echo not equal\n[0x01][0x01]\n[0x03][0x03]\n[0x00][0x00]\n[0x64][0x64]\n[0x00][0x00]\n[0x02][0x00]\n"},
        {[](const Bytes& r) { return Bytes{r[0], 0x83, r[2], r[3], r[4], r[5], r[6], r[7]}; }, 8,
         "Echo not equal\n[0x01][0x01]\n[0x03][0x83]\n[0x00][0x00]\n[0x64][0x64]\n"},
    };
    for (const Case& c : cases) {
        PtyPair pty;
        kesEnergySocket channel;
        ASSERT_EQ(kesErrorOk, channel.Open(pty.LinkPath().c_str(), 0));
        ASSERT_TRUE(channel.SetReceiveTimeOut(c.sendResult == 8 ? 300 : 40));
        PeerThread peer([&] {
            Bytes request = kes_test::ReadFor(pty.Master(), 8, c.echo ? 2000 : 0);
            if (c.echo)
                kes_test::WriteAll(pty.Master(), c.echo(request));
            if (c.sendResult == 8)
                kes_test::WriteAll(pty.Master(), REPLY);
        });
        ErrorCapture errors;
        EXPECT_EQ(c.sendResult, channel.Send(REQUEST.data(), 8));
        expect_records(errors, c.record ? Texts{c.record} : Texts{}, std::to_string(c.sendResult));
        peer.Join();
        unsigned char reply[9] = {0};
        int count = -1;
        EXPECT_EQ(c.sendResult == 8 ? "9 9 1" : "",
                  c.sendResult != 8 ? ""
                                    : SEEN(channel.Receive(reply, 9, &count), count, REPLY == Bytes(reply, reply + 9)));
        EXPECT_TRUE(channel.IsOpen());
    }
}

TEST(EnergySocket, ShortReplyOnBothChannels)
{
    // serial gives the count so far, never -2; TCP a time-out with the count beside it
    const Bytes five(REPLY.begin(), REPLY.begin() + 5);
    PtyPair pty;
    Gateway gateway(five);
    for (bool serial : {true, false}) {
        kesEnergySocket channel;
        ASSERT_EQ(kesErrorOk, channel.Open((serial ? pty.LinkPath() : gateway.Address()).c_str(), 0));
        channel.SetReceiveTimeOut(40);
        kes_test::WriteAll(pty.Master(), serial ? five : Bytes());
        unsigned char reply[9] = {0};
        int count = -1;
        EXPECT_EQ(SEEN(serial ? 5 : -2, 5, 1, 1),
                  SEEN(channel.Receive(reply, 9, &count), count, channel.IsOpen(), five == Bytes(reply, reply + 5)));
    }
}

TEST(EnergySocket, LostLinesCloseTheChannel)
{
    // serial: a frame longer than the echo buffer is refused before it reaches the line; an adapter
    // pulled out closes the channel
    PtyPair pty;
    kesEnergySocket serial;
    ASSERT_EQ(kesErrorOk, serial.Open(pty.LinkPath().c_str(), 0));
    serial.SetReceiveTimeOut(50);
    ErrorCapture errors;
    Bytes huge(kesEnergySocket::ECHO_BUFFER_SIZE + 1, 0);
    EXPECT_EQ(-1, serial.Send(huge.data(), (unsigned int)huge.size()));
    expect_records(errors, {"Frame of 265 bytes refused"});
    EXPECT_TRUE(kes_test::ReadFor(pty.Master(), 1, 20).empty());
    pty.CloseMaster();
    EXPECT_EQ("-1 0", SEEN(serial.Send(REQUEST.data(), 8), serial.IsOpen()));
    EXPECT_EQ(1u, errors.CountContaining("write(...) == -1\nStd Error 5 ")) << errors.Dump();

    // TCP: the first connection notes its end, the second is closed by the gateway, the third stays
    std::atomic<bool> firstSawEnd{false};
    kes_test::Gate done;
    LoopbackServer server;
    server.Serve(
        [&](int fd, int index) {
            firstSawEnd = firstSawEnd || (index == 0 && kes_test::ReadFor(fd, 1, 3000).empty());
            done.Wait(index == 2 ? 5000 : 0);
        },
        3);
    kesEnergySocket channel;
    // opening again drops the first connection; once closed, later transfers fail at once
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk, 1),
              SEEN(channel.Open(server.Address().c_str(), 0), channel.Open(server.Address().c_str(), 0),
                   channel.SetReceiveTimeOut(2000)));
    unsigned char reply[9] = {0};
    EXPECT_EQ(SEEN(-3, 0, 0, -1, kesErrorOk, 1),
              SEEN(channel.Receive(reply, 9, nullptr), channel.IsOpen(), channel.IsValid(),
                   channel.Send(REQUEST.data(), 8), channel.Open(server.Address().c_str(), 0), channel.IsOpen()));
    done.Open();
    server.Join();
    EXPECT_TRUE(firstSawEnd);
}

TEST(EnergySocket, TwoSerialLinesAtOnceKeepTheirOwnEchoes)
{
    // short frames: little time asleep on the line, much time in the echo buffer
    const int rounds = 60;
    std::atomic<int> good{0};
    ErrorCapture errors;
    auto line = [&](unsigned char i_mark) {
        PtyPair pty;
        kesEnergySocket channel;
        channel.Open(pty.LinkPath().c_str(), 0);
        channel.SetReceiveTimeOut(300);
        PeerThread peer([&] {
            for (int r = 0; r < rounds; ++r)
                kes_test::WriteAll(pty.Master(), kes_test::ReadFor(pty.Master(), 3, 2000));
        });
        for (unsigned char r = 0; r < rounds; ++r)
            good += channel.Send(Bytes{i_mark, i_mark, r}.data(), 3) == 3;
    };
    std::thread other(line, 0x11);
    line(0x10);
    other.join();
    EXPECT_EQ(2 * rounds, good.load());
    expect_records(errors, {});
}

TEST(EnergySocket, Helpers)
{
    // send and drop the echo: a whole answer, none, a closed channel
    const std::tuple<Bytes, bool, int, const char*> purges[] = {
        {Bytes(8, 0xAA), false, 8, nullptr},
        {{}, false, kesErrorFailed, "Timeout response not received...\n"},
        {{}, true, kesErrorFailed, "Can not send data to the bus...\n"},
    };
    for (const auto& c : purges) {
        Gateway gateway(std::get<0>(c));
        kesEnergySocket channel;
        ASSERT_EQ(kesErrorOk, channel.Open(gateway.Address().c_str(), 0));
        channel.SetReceiveTimeOut(40);
        if (std::get<1>(c))
            channel.Close();
        ErrorCapture errors;
        EXPECT_EQ(std::get<2>(c), __SEND_PURGE_ECHO__(&channel, REQUEST.data(), 8));
        EXPECT_EQ(std::get<3>(c) ? 1u : 0u, errors.CountContaining(std::get<3>(c) ? std::get<3>(c) : ""));
    }
    // receive four bytes and seal the frame with its CRC; then nothing more comes: a time-out
    Gateway gateway({9, 8, 7, 6});
    kesEnergySocket channel;
    ASSERT_EQ(kesErrorOk, channel.Open(gateway.Address().c_str(), 0));
    channel.SetReceiveTimeOut(40);
    unsigned char data[4] = {0};
    unsigned char frame[8] = {0x01, 0x03, 0x00, 0x64, 0x00, 0x02, 0, 0};
    EXPECT_EQ(kesErrorOk, __RECV_LESS_BYTE__(&channel, data, 8, frame));
    EXPECT_EQ((Bytes{9, 8, 7, 6}), Bytes(data, data + 4));
    EXPECT_EQ(REQUEST, Bytes(frame, frame + 8));
    ErrorCapture errors;
    EXPECT_EQ(SEEN(kesErrorFailed, kesErrorInvalidArgument, kesErrorInvalidArgument, kesErrorInvalidArgument),
              SEEN(__RECV_LESS_BYTE__(&channel, data, 8, frame), __RECV_LESS_BYTE__(&channel, data, 3, frame),
                   __SEND_PURGE_ECHO__(nullptr, REQUEST.data(), 8), __FLUSH_DATA_SOCKET__(nullptr, 8)));
    expect_records(errors, {"Timeout response not received...\n", "pSocket, pData or pFrame == 0 or size < 4",
                            "pSocket == 0", "pSocket == 0"});
}

TEST(EnergySocket, FlushDataSocketRestoresTheTimeOut)
{
    Gateway gateway(Bytes(10, 0x33));
    PtyPair pty;
    for (bool serial : {false, true}) {
        kesEnergySocket channel;
        ASSERT_EQ(kesErrorOk, channel.Open((serial ? pty.LinkPath() : gateway.Address()).c_str(), 0));
        channel.SetReceiveTimeOut(1000);
        kes_test::WriteAll(pty.Master(), Bytes(serial ? 10 : 0, 0x33));
        // 0 is taken as the shortest pause, not as no time-out
        EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk),
                  SEEN(__FLUSH_DATA_SOCKET__(&channel, serial ? 20 : 0), __FLUSH_DATA_SOCKET__(&channel, 20)));
        // the kernel keeps a TCP time-out in clock ticks
        EXPECT_NEAR(1000, (int)channel.GetReceiveTimeOut(), serial ? 0 : 10);
        unsigned char byte = 0;
        EXPECT_EQ(SEEN(1, serial ? 0 : -2), SEEN(channel.SetReceiveTimeOut(10), channel.Receive(&byte, 1, nullptr)));
    }
}
