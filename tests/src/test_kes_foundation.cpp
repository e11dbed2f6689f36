// The ground floor against real peers on loopback and pseudo-terminals: the
// TCP client, the datagram sender, the serial line and the bus channel over
// them; events, threads and timers; the error log; files, strings, options.
#include "kes_commandlineparser.h"
#include "kes_energysocket.h"
#include "kes_osfile.h"
#include "kes_osudpsocket.h"
#include "kes_osutility.h"
#include "kes_time.h"
#include "kes_timer.h"

#include "datagram_receiver.h"
#include "error_capture.h"
#include "loopback.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <numeric>
#include <regex>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace kes;
using namespace kes_test;

namespace {

typedef std::chrono::steady_clock Clock;
typedef std::chrono::milliseconds Ms;
typedef kesOsSerialCom S;
typedef std::vector<std::string> Texts;

const Bytes REQUEST = {0x01, 0x03, 0x00, 0x64, 0x00, 0x02, 0x85, 0xD4};
const Bytes REPLY = {0x01, 0x03, 0x04, 0x00, 0x01, 0x00, 0x02, 0x2A, 0x32};

const auto elapsed_ms = [](Clock::time_point i_start) {
    return (long)std::chrono::duration_cast<Ms>(Clock::now() - i_start).count();
};
const auto pause_ms = [](int i_ms) { std::this_thread::sleep_for(Ms(i_ms)); };

// Several outcomes as one text, blank-separated, so that a row compares them at once.
// Braces take the calls in order, left to right.
struct Seen {
    template <typename... T>
    Seen(const T&... i_values)
    {
        ((out << ' ' << i_values), ...);
    }
    std::ostringstream out;
};
#define SEEN(...) (Seen{__VA_ARGS__}.out.str().substr(1))

// Exactly these records, each known by a piece of its text.
void expect_records(const ErrorCapture& i_errors, const Texts& i_texts, const std::string& i_name = "")
{
    EXPECT_EQ(i_texts.size(), i_errors.Count()) << i_name << "\n" << i_errors.Dump();
    for (const std::string& text : i_texts)
        EXPECT_TRUE(i_errors.Contains(text)) << i_name << ": " << text << "\n" << i_errors.Dump();
}

// A gateway that sends its bytes, the rest 10 ms later, then closes or holds the
// connection until it goes.
struct Gateway {
    explicit Gateway(const Bytes& i_first, const Bytes& i_second = {}, bool i_closes = false)
    {
        server.Serve([this, i_first, i_second, i_closes](int fd, int) {
            WriteAll(fd, i_first);
            pause_ms(i_second.empty() ? 0 : 10);
            WriteAll(fd, i_second);
            done.Wait(i_closes ? 0 : 5000);
        });
    }
    ~Gateway() { done.Open(); }
    std::string Address() const { return server.Address(); }
    Gate done;
    LoopbackServer server;
};

const auto open_8n1 = [](kesOsSerialCom& io_port, const std::string& i_path) {
    return io_port.Open(i_path.c_str(), S::Baud9600, S::DataBits8, S::ParityNone, S::StopBitsOne, S::FlowControlNone);
};

struct HookedPort : kesOsSerialCom {
    HookedPort() : kesOsSerialCom(false) {}
    void OnConnectionClose() override { calls += "close;"; }
    void OnConnectionOpen() override { calls += "open;"; }
    std::string calls;
};

std::atomic<int> g_sigpipes{0};

// Counts its ticks and hooks; its clock may jitter, so that a check lands just before the expiry.
struct RecordingTimer : kesTimer {
    ~RecordingTimer() override { Stop(); }
    void OnTimer() override { ++ticks; }
    void OnTimerStart() override { ++starts; }
    void OnTimerStop() override { ++stops; }
    unsigned int get_loop_time() override { return kesTime::GetTime() + ((++calls & 1) ? jitter : 0); }
    std::atomic<unsigned int> ticks{0}, starts{0}, stops{0}, calls{0};
    unsigned int jitter = 0;
};

// Routes the log to a file of a temporary folder for the length of a test.
struct LogToFile : ::testing::Test {
    static void Route(unsigned int i_level, const kesString& i_file, unsigned int i_size)
    {
        kesError::Level = i_level, kesError::LogFile = i_file, kesError::LogFileSize = i_size;
        kesError::_current_log_filesize = 0;
    }
    LogToFile() { Route(kesErrorOutFile, m_dir.File("kes.log"), m_size); }
    ~LogToFile() override { Route(m_level, m_file, m_size); }
    std::string Log() { return ReadFile(m_dir.File("kes.log")); }
    TempDir m_dir;
    unsigned int m_level = kesError::Level, m_size = kesError::LogFileSize;
    kesString m_file = kesError::LogFile;
};

} // namespace

TEST(OsTcpSocket, AddressFormsAndFailedConnections)
{
    // one connection a row, then one more for each failed row; a port in the text wins
    LoopbackServer server;
    server.Serve([](int, int) {}, 6);
    const std::string port = ":" + std::to_string(server.Port()), gone = ":" + std::to_string(LoopbackServer().Port());
    const std::tuple<std::string, unsigned short, const char*> cases[] = {
        {"127.0.0.1" + port, 1, nullptr},
        {" 127.0.0.1 " + port, 1, nullptr},
        {"127.0.0.1", server.Port(), nullptr},
        {"localhost" + port, 1, nullptr},
        {"no-such-host.invalid" + port, 1, "gethostbyname failed"},
        {"127.0.0.1" + gone, 1, "Can not connect socket\nStd Error "},
    };
    for (const auto& [address, argument, record] : cases) {
        ErrorCapture errors;
        kesOsTcpSocket s;
        // a failure keeps the socket for a retry
        EXPECT_EQ(SEEN(!record, !record, 1), SEEN(s.Open(address, argument) == kesErrorOk, s.IsOpen(), s.IsValid()))
            << address;
        expect_records(errors, record ? Texts{record} : Texts{}, address);
        EXPECT_EQ(std::vector<unsigned int>(record ? 1 : 0, kesErrorNetwork), errors.Codes());
        EXPECT_EQ(SEEN(kesErrorOk, server.Address()),
                  SEEN(record ? s.Open(server.Address(), 0) : kesErrorOk, s.GetPeerName()));
    }
}

TEST(OsTcpSocket, ReplyShapesAndAVanishedPeer)
{
    // the reply in two goes or in part, whether the peer closes; the result, the count, whether it stays open
    const Bytes reply = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    const std::tuple<int, int, bool, const char*> cases[] = {
        {4, 6, false, "10 10 1"}, {4, 0, false, "-2 4 1"}, {0, 0, false, "-2 0 1"}, {4, 0, true, "-3 4 0"}};
    for (const auto& [first, second, closes, seen] : cases) {
        const auto part = [&](int i_from, int i_count) { return Bytes(&reply[i_from], &reply[i_from] + i_count); };
        Gateway gateway(part(0, first), part(first, second), closes);
        ErrorCapture errors;
        kesOsTcpSocket socket;
        ASSERT_EQ(SEEN(kesErrorOk, 1), SEEN(socket.Open(gateway.Address(), 0), socket.SetReceiveTimeOut(60)));
        unsigned char buffer[10] = {0};
        int received = -100;
        EXPECT_EQ(seen, SEEN(socket.Receive(buffer, sizeof(buffer), &received), received, socket.IsOpen()));
        EXPECT_EQ(part(0, std::max(received, 0)), Bytes(buffer, buffer + std::max(received, 0))) << seen;
        // neither a time-out nor a closing peer is a failure to log
        expect_records(errors, {}, seen);
    }
    // a send to a vanished peer is an EPIPE, without a signal
    struct sigaction counting = {}, saved = {};
    counting.sa_handler = [](int) { ++g_sigpipes; };
    sigaction(SIGPIPE, &counting, &saved);
    Gateway gateway({}, {}, true);
    kesOsTcpSocket socket;
    // the peer's FIN is here once the socket reads as ready
    ASSERT_EQ(SEEN(kesErrorOk, 1), SEEN(socket.Open(gateway.Address(), 0), socket.IsReadyToReceive(2000)));
    ErrorCapture errors;
    int result = 0;
    // the first send is answered by a reset, a later one fails
    for (int attempt = 0; attempt < 100 && result != -1; ++attempt)
        if ((result = socket.Send(REQUEST.data(), 8)) != -1)
            pause_ms(5);
    EXPECT_EQ("-1 0", SEEN(result, g_sigpipes.load()));
    expect_records(errors, {"send error\nStd Error 32 "});
    sigaction(SIGPIPE, &saved, nullptr);
}

TEST(OsTcpSocket, LifeOfAConnection)
{
    // the first connection notes its end, the second sends five bytes, the third takes a big send
    std::atomic<bool> firstSawEnd{false};
    Bytes got, big(100000);
    std::iota(big.begin(), big.end(), 0);
    LoopbackServer server;
    server.Serve(
        [&](int fd, int index) {
            WriteAll(fd, index == 1 ? Bytes{1, 2, 3, 4, 5} : Bytes());
            Bytes read = ReadFor(fd, index == 2 ? big.size() : 1, 3000);
            firstSawEnd = firstSawEnd || (index == 0 && read.empty());
            got = index == 2 ? read : got;
        },
        3);
    kesOsTcpSocket s;
    ErrorCapture errors;
    int count = -1;
    // the kernel keeps time-outs in clock ticks; a second Open drops the first connection; a flush
    // drops what waits and keeps the time-out
    EXPECT_EQ("0 1 1 1 1 0 0 1 0", SEEN(s.Open(server.Address(), 0), s.SetReceiveTimeOut(250), s.SetSendTimeOut(1500),
                                        s.SetKeepAlive(true), s.GetKeepAlive(), s.GetName().find("127.0.0.1:"),
                                        s.IsReadyToReceive(0), s.IsReadyToSend(0), s.Send("", 0)));
    EXPECT_NEAR(1500, (int)s.GetSendTimeOut(), 10);
    EXPECT_EQ("0 1 1 0", SEEN(s.Open(server.Address(), 0), s.SetReceiveTimeOut(700), s.IsReadyToReceive(2000),
                              s.FlushReceive(30, &count)));
    EXPECT_NEAR(700, (int)s.GetReceiveTimeOut(), 10);
    EXPECT_EQ("5 0 0 0 0 0 0",
              SEEN(count, s.IsReadyToReceive(0), s.Close(), s.Close(), s.IsValid(), s.IsOpen(), errors.Count()));
    unsigned char byte = 0;
    EXPECT_EQ("0  0 -1 -1 3 2",
              SEEN(s.SetReceiveTimeOut(100), s.GetPeerName(), s.GetConnectionTime(), s.Receive(&byte, 1, nullptr),
                   s.Send(&byte, 1), errors.CountContaining("Socket is invalid."),
                   errors.CountContaining("Socket is close.")));
    EXPECT_EQ(SEEN(kesErrorOk, 100000), SEEN(s.Open(server.Address(), 0), s.Send(big.data(), 100000)));
    server.Join();
    EXPECT_EQ("1 3 1", SEEN(firstSawEnd.load(), server.Accepted(), big == got));
}

// With standard input closed the system hands out descriptor 0, which would read as "no socket".
TEST(OsSockets, DescriptorZeroIsNeverHeld)
{
    DatagramReceiver receiver;
    int savedStdin = dup(0);
    close(0);
    std::unique_ptr<kesOsTcpSocket> tcp(new kesOsTcpSocket());
    std::unique_ptr<kesOsUdpSocket> udp(new kesOsUdpSocket());
    std::string seen = SEEN(tcp->IsValid(), udp->IsValid(), udp->SetTo("127.0.0.1", receiver.Port()),
                            udp->Send("zero", 4), fcntl(0, F_GETFD));
    dup2(savedStdin, 0);
    close(savedStdin);
    std::string datagram;
    EXPECT_EQ("1 1 0 4 -1 1 zero", seen + " " + SEEN(receiver.Receive(&datagram), datagram));
}

TEST(UdpSocket, WholeDatagramsThenRefusalsOnceClosed)
{
    // a port in the address wins over the argument, which then points elsewhere
    DatagramReceiver receiver;
    std::string big(1400, 'x'), first, second;
    kesOsUdpSocket socket;
    EXPECT_EQ(SEEN(kesErrorOk, 1400, 0, 1, 1, 1, 0),
              SEEN(socket.SetTo("127.0.0.1:" + std::to_string(receiver.Port()), receiver.Port() ^ 1),
                   socket.Send(big.data(), 1400), socket.Send("", 0), receiver.Receive(&first),
                   receiver.Receive(&second), first == big, second.size()));
    EXPECT_EQ(SEEN(1, kesOsSocketTypeUdp, 1, 1, 1, 0),
              SEEN(socket.SetReceiveTimeOut(250), socket.GetType(), socket.SetSendTimeOut(1500),
                   socket.GetMaxMessageSize() > 0, socket.IsReadyToSend(0), socket.IsReadyToReceive(5)));
    EXPECT_NEAR(250u, socket.GetReceiveTimeOut(), 20u);
    EXPECT_NEAR(1500u, socket.GetSendTimeOut(), 20u);
    ErrorCapture errors;
    // an unknown host leaves the all-ones address: refused, never a crash
    EXPECT_EQ(SEEN(kesErrorNetwork, 1, 1), SEEN(socket.SetTo("no-such-host.invalid", 9), socket.Send("x", 1) <= 1,
                                                errors.CountContaining("gethostbyname failed")));
    errors.Clear();
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk, 0), SEEN(socket.Close(), socket.Close(), errors.Count()));
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
    // data bits, parity and stop bits are c_cflag bits; bits a byte, bytes a second, ms for 8 bytes
    const std::tuple<S::EBaudRate, unsigned int, const char*> cases[] = {
        {S::Baud9600, S::DataBits8 | S::ParityNone | S::StopBitsOne, "10 960 8"},
        {S::Baud9600, S::DataBits8 | S::ParityEven | S::StopBitsOne, "11 872 9"},
        {S::Baud9600, S::DataBits7 | S::ParityNone | S::StopBitsTwo, "10 960 8"},
        {S::Baud300, S::DataBits5 | S::ParityNone | S::StopBitsOne, "7 42 190"},
        {S::Baud115200, S::DataBits8 | S::ParityNone | S::StopBitsOne, "10 11520 0"},
        {S::Baud57600, S::DataBits6 | S::ParityOdd | S::StopBitsTwo, "10 5760 1"},
    };
    for (const auto& [baud, bits, rate] : cases) {
        PtyPair pty;
        kesOsSerialCom port(false);
        EXPECT_EQ(SEEN(0, kesErrorOk, rate),
                  SEEN(port.GetMaxBytesPerSecond(),
                       port.Open(pty.LinkPath(), baud, S::EDataBits(bits & CSIZE), S::EParity(bits & (PARENB | PARODD)),
                                 S::EStopBits(bits & CSTOPB), S::FlowControlNone),
                       (int)port.GetBitsPerByte(), port.GetMaxBytesPerSecond(), port.GetReceiveWaitTime(8)));
    }
    // a send holds the caller until the bytes have left the line: 8 bytes at 960 a second take 8333 us
    PtyPair pty;
    kesOsSerialCom port(false);
    ASSERT_EQ(kesErrorOk, open_8n1(port, pty.LinkPath()));
    Clock::time_point start = Clock::now();
    EXPECT_EQ(8, port.Send(REQUEST.data(), 8));
    EXPECT_GE(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count(), 8333);
    EXPECT_EQ(SEEN(1, 0), SEEN(REQUEST == ReadFor(pty.Master(), 8, 1000), port.Send(REQUEST.data(), 0)));
}

TEST(OsSerialCom, ReceiveGivesWhatCameWithinTheTime)
{
    // bytes 1, 2... at once, the next ones 10 ms later; the length and time asked; what came. A short
    // reply comes once the time from the call's start is up, never -2; a time-out of 0 reads once.
    const std::tuple<int, int, unsigned int, unsigned long, int> cases[] = {
        {10, 0, 10, 200, 10}, {4, 0, 10, 30, 4}, {0, 0, 9, 20, 0}, {3, 6, 9, 500, 9}, {2, 0, 2, 0, 2}};
    PtyPair pty;
    kesOsSerialCom port(false);
    ASSERT_EQ(kesErrorOk, open_8n1(port, pty.LinkPath()));
    ErrorCapture errors;
    const Bytes bytes = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    for (const auto& [first, second, length, timeOut, expected] : cases) {
        WriteAll(pty.Master(), bytes.data(), first);
        ASSERT_TRUE(first == 0 || port.IsReadyToReceive(1000));
        PeerThread peer([&, first = first, second = second] {
            pause_ms(second ? 10 : 0);
            WriteAll(pty.Master(), bytes.data() + first, second);
        });
        unsigned char buffer[16] = {0};
        Clock::time_point start = Clock::now();
        int got = port.Receive(buffer, length, 5, timeOut);
        EXPECT_GE(elapsed_ms(start), got < (int)length ? (long)timeOut : 0) << length;
        peer.Join();
        EXPECT_EQ(SEEN(expected, 1, 0),
                  SEEN(got, Bytes(bytes.begin(), bytes.begin() + expected) == Bytes(buffer, buffer + expected),
                       errors.Count()))
            << length << " " << timeOut;
    }
}

TEST(OsSerialCom, OpenPortReadsFlushesAndHasNoModemLines)
{
    PtyPair pty;
    HookedPort port;
    ErrorCapture errors;
    // a failed speed keeps the descriptor until the next open
    EXPECT_EQ(SEEN(1, 1, "|"), SEEN(port.Open(pty.LinkPath(), S::EBaudRate(12345), S::DataBits8, S::ParityNone,
                                              S::StopBitsOne, S::FlowControlNone) != kesErrorOk,
                                    port.IsValid(), port.calls + "|"));
    expect_records(errors, {"cfsetospeed(...) == -1 at " + pty.LinkPath()});
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk), SEEN(open_8n1(port, pty.LinkPath()), open_8n1(port, pty.LinkPath())));
    errors.Clear();
    // the plain read: nothing waiting is -2, silently
    unsigned char byte = 0;
    EXPECT_EQ("-2 0", SEEN(port.Receive(&byte, 1), port.IsReadyToReceive(0)));
    WriteAll(pty.Master(), Bytes{0x42});
    EXPECT_EQ("1 1 66", SEEN(port.IsReadyToReceive(1000), port.Receive(&byte, 1), (int)byte));
    for (bool timed : {true, false}) {
        WriteAll(pty.Master(), Bytes(20, 0x55));
        ASSERT_TRUE(port.IsReadyToReceive(1000));
        EXPECT_EQ("0 -2", SEEN(timed ? (int)port.Flush(0, 20) : port.Flush(), port.Receive(&byte, 1))) << timed;
    }
    expect_records(errors, {}, "reads");
    // a pseudo-terminal has no modem lines: the failure is reported with the device
    EXPECT_EQ(SEEN(kesErrorInvalidArgument, 1, 1, 1, 2),
              SEEN(port.GetDTR(nullptr), port.GetRTS(&byte) != kesErrorOk, port.SetDTR(1) != kesErrorOk,
                   errors.CountContaining("o_pVal == 0"),
                   errors.CountContaining("ioctl(...) == -1 at " + pty.LinkPath())));
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk, "close;open;close;open;close;"),
              SEEN(port.Close(), port.Close(), port.calls));
}

TEST(OsSerialCom, AdapterPulledOutMissingOrBack)
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
    const std::string missing = pty.LinkPath() + "7";
    errors.Clear();
    EXPECT_EQ("0 0", SEEN(open_8n1(port, missing) == kesErrorOk, port.IsValid()));
    expect_records(errors, {"open(...) == -1 at " + missing + "\nStd Error 2 "});
    errors.Clear();
    EXPECT_EQ("-1 -1 -1 -1 0 1 6", SEEN(port.Send(buffer, 1), port.Receive(buffer, 1), port.Receive(buffer, 1, 5, 10),
                                        port.Flush(), port.IsReadyToReceive(0), port.GetRTS(buffer) != kesErrorOk,
                                        errors.CountContaining("Invalid handle")));
    // the retrying thread ends with its port, without waiting out its period
    Clock::time_point start = Clock::now();
    EXPECT_NE(kesErrorOk, open_8n1(*std::make_unique<kesOsSerialCom>(true), missing));
    EXPECT_LT(elapsed_ms(start), 300);
    // an adapter that comes back
    PtyPair replugged;
    kesOsSerialCom back(true);
    ASSERT_EQ(SEEN(1, kesErrorOk), SEEN(back.GetAutoReconnect(), open_8n1(back, replugged.LinkPath())));
    errors.Clear();
    replugged.CloseMaster();
    // the freed terminal number may go to another process at once: the link must not lead there
    unlink(replugged.LinkPath().c_str());
    // with auto-reconnect the port closes itself; a thread retries every 500 ms, and goes on after a failure
    EXPECT_EQ("-3 0", SEEN(back.Send(REQUEST.data(), 8), back.IsValid()));
    start = Clock::now();
    while (errors.CountContaining("open(...) == -1 at " + replugged.LinkPath()) == 0 && elapsed_ms(start) < 3000)
        pause_ms(10);
    ASSERT_TRUE(replugged.Replug());
    while (!back.IsValid() && elapsed_ms(start) < 5000)
        pause_ms(10);
    EXPECT_EQ(SEEN(8, 1), SEEN(back.Send(REQUEST.data(), 8), REQUEST == ReadFor(replugged.Master(), 8, 1000)));
}

TEST(EnergySocket, AddressPicksTheChannel)
{
    PtyPair mixed("x/DEV/TtYuSb3");
    Gateway gateway({});
    TempDir dir;
    // opens, serial, open, valid, time-out taken; the last two: a missing adapter keeps its port
    // object without a handle, and without /dev/ before the name the socket is made before the look-up
    const std::pair<std::string, const char*> cases[] = {{mixed.LinkPath(), "1 1 1 1 1"},
                                                         {gateway.Address(), "1 0 1 1 1"},
                                                         {dir.Path() + "/dev/ttyUSB9", "0 1 0 0 1"},
                                                         {"ttyUSB0", "0 0 0 1 1"}};
    for (const auto& [address, seen] : cases) {
        kesEnergySocket channel;
        EXPECT_EQ(seen, SEEN(channel.Open(address, 502) == kesErrorOk, channel.IsSerial(), channel.IsOpen(),
                             channel.IsValid(), channel.SetReceiveTimeOut(100)))
            << address;
    }
    // a channel never opened has nothing, silently
    ErrorCapture errors;
    kesEnergySocket channel;
    unsigned char byte = 0;
    int received = 7;
    EXPECT_EQ(SEEN(0, 0, 0, 0, -1, -1, 0, kesErrorOk, 0),
              SEEN(channel.SetReceiveTimeOut(100), channel.GetReceiveTimeOut(), channel.IsOpen(), channel.IsValid(),
                   channel.Send(&byte, 1), channel.Receive(&byte, 1, &received), received, channel.Close(),
                   errors.Count()));
}

TEST(EnergySocket, SerialEchoShapesAndLostLines)
{
    // one channel all through: the echo of one exchange must not pass for that of the next. What the
    // peer echoes (then the reply if the echo was whole), the send's result, its record
    const std::tuple<Bytes, int, const char*> cases[] = {
        {REQUEST, 8, nullptr},
        {{},
         0,
         "[0x01][0x00]\n[0x03][0x00]\n[0x00][0x00]\n[0x64][0x00]\n"
         "[0x00][0x00]\n[0x02][0x00]\n[0x85][0x00]\n[0xD4][0x00]\n"},
        {{1, 3, 0, 0x64, 0}, 5, "[0x01][0x01]\n[0x03][0x03]\n[0x00][0x00]\n[0x64][0x64]\n[0x00][0x00]\n[0x02][0x00]\n"},
        {{1, 0x83, 0, 0x64, 0, 2, 0x85, 0xD4}, 8, "[0x01][0x01]\n[0x03][0x83]\n[0x00][0x00]\n[0x64][0x64]\n"}};
    PtyPair pty;
    kesEnergySocket channel;
    ASSERT_EQ(kesErrorOk, channel.Open(pty.LinkPath(), 0));
    unsigned char reply[9] = {0};
    for (const auto& [echo, result, record] : cases) {
        ASSERT_TRUE(channel.SetReceiveTimeOut(echo.size() == 8 ? 300 : 40));
        PeerThread peer([&, echo = echo] {
            ReadFor(pty.Master(), 8, 2000);
            WriteAll(pty.Master(), echo);
            WriteAll(pty.Master(), echo == REQUEST ? REPLY : Bytes());
        });
        ErrorCapture errors;
        EXPECT_EQ(result, channel.Send(REQUEST.data(), 8));
        expect_records(errors, record ? Texts{"Echo not equal\n" + std::string(record)} : Texts{},
                       std::to_string(result));
        peer.Join();
        int count = echo == REQUEST ? -1 : 9;
        EXPECT_EQ("9 9 1", SEEN(echo == REQUEST ? channel.Receive(reply, 9, &count) : 9, count, channel.IsOpen()));
        EXPECT_TRUE(echo != REQUEST || REPLY == Bytes(reply, reply + 9));
    }
    // serial: a frame longer than the echo buffer is refused before it reaches the line; an adapter
    // pulled out closes the channel
    channel.SetReceiveTimeOut(50);
    ErrorCapture errors;
    Bytes huge(kesEnergySocket::ECHO_BUFFER_SIZE + 1, 0);
    EXPECT_EQ(SEEN(-1, 1),
              SEEN(channel.Send(huge.data(), (unsigned int)huge.size()), ReadFor(pty.Master(), 1, 20).empty()));
    expect_records(errors, {"Frame of 265 bytes refused"});
    pty.CloseMaster();
    EXPECT_EQ("-1 0 1", SEEN(channel.Send(REQUEST.data(), 8), channel.IsOpen(),
                             errors.CountContaining("write(...) == -1\nStd Error 5 ")));
    // TCP: the first connection notes its end, the gateway closes the others
    std::atomic<bool> firstSawEnd{false};
    LoopbackServer server;
    server.Serve(
        [&firstSawEnd](int fd, int index) {
            if (index == 0)
                firstSawEnd = ReadFor(fd, 1, 3000).empty();
        },
        3);
    // opening again drops the first connection; once closed, later transfers fail at once
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk, 1, -3, 0, 0, -1, kesErrorOk, 1),
              SEEN(channel.Open(server.Address(), 0), channel.Open(server.Address(), 0),
                   channel.SetReceiveTimeOut(2000), channel.Receive(reply, 9, nullptr), channel.IsOpen(),
                   channel.IsValid(), channel.Send(REQUEST.data(), 8), channel.Open(server.Address(), 0),
                   channel.IsOpen()));
    server.Join();
    EXPECT_TRUE(firstSawEnd);
}

TEST(EnergySocket, Helpers)
{
    // send and drop the echo: a whole answer, none, a closed channel
    const std::tuple<Bytes, bool, int, const char*> purges[] = {
        {Bytes(8, 0xAA), false, 8, ""},
        {{}, false, kesErrorFailed, "Timeout response not received...\n"},
        {{}, true, kesErrorFailed, "Can not send data to the bus...\n"},
    };
    for (const auto& [answer, closed, result, record] : purges) {
        Gateway gateway(answer);
        kesEnergySocket channel;
        ASSERT_EQ(SEEN(kesErrorOk, 1, kesErrorOk),
                  SEEN(channel.Open(gateway.Address(), 0), channel.SetReceiveTimeOut(40),
                       closed ? channel.Close() : kesErrorOk));
        ErrorCapture errors;
        EXPECT_EQ(SEEN(result, *record ? 1 : 0),
                  SEEN(__SEND_PURGE_ECHO__(&channel, REQUEST.data(), 8), errors.CountContaining(record)));
    }
    // receive four bytes and seal the frame with its CRC; then nothing more comes: a time-out
    Gateway gateway({9, 8, 7, 6});
    kesEnergySocket channel;
    ASSERT_EQ(SEEN(kesErrorOk, 1), SEEN(channel.Open(gateway.Address(), 0), channel.SetReceiveTimeOut(40)));
    unsigned char data[4] = {0}, frame[8] = {0x01, 0x03, 0x00, 0x64, 0x00, 0x02, 0, 0};
    EXPECT_EQ(SEEN(kesErrorOk, 1, 1),
              SEEN(__RECV_LESS_BYTE__(&channel, data, 8, frame), Bytes{9, 8, 7, 6} == Bytes(data, data + 4),
                   REQUEST == Bytes(frame, frame + 8)));
    ErrorCapture errors;
    EXPECT_EQ(SEEN(kesErrorFailed, kesErrorInvalidArgument, kesErrorInvalidArgument, kesErrorInvalidArgument),
              SEEN(__RECV_LESS_BYTE__(&channel, data, 8, frame), __RECV_LESS_BYTE__(&channel, data, 3, frame),
                   __SEND_PURGE_ECHO__(nullptr, REQUEST.data(), 8), __FLUSH_DATA_SOCKET__(nullptr, 8)));
    expect_records(errors, {"Timeout response not received...\n", "pSocket, pData or pFrame == 0 or size < 4",
                            "pSocket == 0", "pSocket == 0"});
    // a flush drops what waits and gives the time-out back
    Gateway talker(Bytes(10, 0x33));
    PtyPair pty;
    for (bool serial : {false, true}) {
        ASSERT_EQ(SEEN(kesErrorOk, 1),
                  SEEN(channel.Open(serial ? pty.LinkPath() : talker.Address(), 0), channel.SetReceiveTimeOut(1000)));
        WriteAll(pty.Master(), Bytes(serial ? 10 : 0, 0x33));
        // 0 is taken as the shortest pause, not as no time-out
        EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk),
                  SEEN(__FLUSH_DATA_SOCKET__(&channel, serial ? 20 : 0), __FLUSH_DATA_SOCKET__(&channel, 20)));
        // the kernel keeps a TCP time-out in clock ticks
        EXPECT_NEAR(1000, (int)channel.GetReceiveTimeOut(), serial ? 0 : 10);
        EXPECT_EQ(SEEN(1, serial ? 0 : -2), SEEN(channel.SetReceiveTimeOut(10), channel.Receive(data, 1, nullptr)));
    }
}

TEST(KesOsThreads, EventThreadAndMutex)
{
    // a manual-reset event: a timed wait runs out, a signal stays until the reset, 0 waits without limit
    kesOsEvent event;
    Clock::time_point start = Clock::now();
    EXPECT_EQ("0 1 1 1 1 1 1 1 0", SEEN(event.WaitSignal(20), elapsed_ms(start) >= 19, event.Reset(), event.Signal(),
                                        event.WaitSignal(0xFFFFFFFF), event.WaitSignal(0), event.IsSignaled(),
                                        event.Reset(), event.IsSignaled()));
    // Start returns once the thread began, Stop wakes and joins it at once
    kesOsThread thread([](kesOsThread* t, void* e) { static_cast<kesOsEvent*>(e)->Signal(), t->WaitContinue(0); },
                       &event, false);
    EXPECT_EQ("1 1 1 1",
              SEEN(thread.Start(262144), thread.IsStarted(), event.WaitSignal(0), thread.IsProcedureRunning()));
    start = Clock::now();
    thread.Stop();
    EXPECT_EQ("1 0", SEEN(elapsed_ms(start) < 100, thread.IsProcedureRunning()));
    kesOsThread(nullptr, nullptr, false).Stop();
    // recursive by default
    kesOsMutex mutex;
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk, 0, 0), SEEN(mutex.Lock(), mutex.Lock(), mutex.UnLock(), mutex.UnLock()));
    delete new kesSOsMutex(&mutex);
    PeerThread([&] { EXPECT_EQ(SEEN(kesErrorOk, 0), SEEN(mutex.Lock(), mutex.UnLock())); });
}

TEST(KesTimer, CountRestartAndPauses)
{
    RecordingTimer timer, idle, early, half;
    timer.SetExpiredTime(5), timer.SetCount(3), timer.SetResolutionTime(0);
    EXPECT_EQ(SEEN(1, kesErrorOk), SEEN(timer.GetResolutionTime(), timer.Start(0)));
    for (int i = 0; i < 200 && timer.stops == 0; ++i)
        pause_ms(5);
    EXPECT_EQ("3 3 1", SEEN(timer.ticks.load(), timer.GetCounter(), timer.stops.load()));
    // a restart runs the stop and start hooks
    idle.SetExpiredTime(1000);
    EXPECT_EQ(SEEN(kesErrorOk, kesErrorOk, kesErrorOk), SEEN(idle.Start(0), idle.Start(0), idle.Stop()));
    EXPECT_EQ("2 2 0", SEEN(idle.starts.load(), idle.stops.load(), idle.ticks.load()));
    // The history store waits a whole period between checks; a check landing a millisecond early
    // must not push the tick a whole period later. A pause figured in signed milliseconds turned
    // negative for a period of 2^31 ms and the loop spun at 1 ms.
    early.jitter = 2, early.SetExpiredTime(25), early.SetResolutionTime(25);
    half.SetExpiredTime(0x80000000u), half.SetResolutionTime(0x80000000u);
    ASSERT_EQ(SEEN(kesErrorOk, kesErrorOk), SEEN(early.Start(0), half.Start(0)));
    pause_ms(260);
    early.Stop(), half.Stop();
    EXPECT_EQ("1 0 1", SEEN(early.ticks >= 8 && early.ticks <= 11, half.ticks.load(), half.calls < 20))
        << early.ticks.load();
}

TEST(KesOsFile, WholeFileReadsAndFailures)
{
    TempDir dir;
    kesString text("filled");
    kesOsFile file;
    EXPECT_EQ(SEEN(1, "", 1, kesErrorOk, 1, kesErrorOk, 3, kesErrorOk, kesErrorOk, kesErrorOk),
              SEEN(kesOsFile::GetFileTextSource(dir.File("missing"), &text) != kesErrorOk, text,
                   kesOsFile::GetFileTextSource("x", nullptr) != kesErrorOk, file.Close(),
                   file.WriteText("%s", "nothing") > 0, file.Open(dir.File("f"), "w"),
                   file.WriteText("%s%c%s", "a", 0, "b"), file.Open(dir.File("empty"), "w"), file.Close(),
                   file.Close()));
    EXPECT_EQ(SEEN(kesErrorOk, 1),
              SEEN(kesOsFile::GetFileTextSource(dir.File("f"), &text), text == std::string("a\0b", 3)));
    EXPECT_EQ(SEEN(kesErrorOk, ""), SEEN(kesOsFile::GetFileTextSource(dir.File("empty"), &text), text));
    // a file is a folder as well, as far as stat goes
    EXPECT_EQ("1 0 1 1 0",
              SEEN(kesOsUtility::FileExist(dir.File("f").c_str()), kesOsUtility::FileExist(dir.File("missing").c_str()),
                   kesOsUtility::FolderExist(dir.File("f").c_str()), kesOsUtility::FolderExist(dir.Path().c_str()),
                   kesOsUtility::FolderExist(dir.File("missing").c_str())));
}

TEST_F(LogToFile, RecordTextsFormsAndTrims)
{
    EXPECT_EQ("The operation completed succefully.", kesErrorToString(kesErrorOk));
    EXPECT_EQ("kesError description not found. Update kesErrorToString function.!", kesErrorToString(kesErrorWarning));
    EXPECT_EQ(kesErrorToString(kesErrorWarning), kesErrorToString(static_cast<kesEError>(11)));
    errno = 0;
    EXPECT_EQ("0 No error 0 No error 2 No such file or directory",
              SEEN(kesErrorStdToString(0), kesErrorStdToString(-1), kesErrorStdToString(2)));
    // the record's date has no line end; the fields of a date count from 1
    kesTime::kesDateTime now;
    int month = -1, yearDay = -1, weekDay = -1;
    kesTime::GetDateTime(&now);
    kesTime::GetDateTime(nullptr, &yearDay, &month, nullptr, &weekDay, nullptr, nullptr, nullptr);
    kesTime::GetDateTime(static_cast<kesTime::kesDateTime*>(nullptr));
    EXPECT_EQ(SEEN(24, 1, month + 1, yearDay + 1, weekDay + 1, 1),
              SEEN(kesTime::GetDateTime().size(), kesTime::GetDateTime().back() != '\n', now.month, now.day_of_year,
                   now.day_of_week, now.year >= 2020));
    EXPECT_EQ(kesErrorNetwork,
              kesErrorLog(kesBuildErrorLocation(kesErrorNetwork, "connect failed", "src/x.cpp", "Open", 42)));
    kesErrorLog(kesBuildErrorLocation(kesErrorOk, "History Time changed to 10 minutes", "energy/e.cpp", "Init", 7));
    kesErrorLog(kesBuildErrorLocation(kesErrorWarning, "careful", "a.cpp", "f", 1));
    // a failure has one field a line, a notice and a warning one line; each starts with the asctime date
    const std::regex date("\\[\\w{3} \\w{3} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}\\]\n");
    EXPECT_EQ("[DATE]\nkesError Number : 10\nNetwork communication error.\n"
              "File ----------- : src/x.cpp\nFunction ------- : Open\nLine Number ---- : 42\n"
              "Custom Message - : connect failed\n"
              "[DATE]\nInfo : History Time changed to 10 minutes[FILE:energy/e.cpp][FUNCTION:Init][LINE:7]\n"
              "[DATE]\nWarning : careful[FILE:a.cpp][FUNCTION:f][LINE:1]\n",
              std::regex_replace(Log(), date, "[DATE]\n"));
    // a position too long for a notice is cut
    EXPECT_LT(kesBuildErrorLocation(kesErrorOk, "m", std::string(400, 'p').c_str(), "f", 1).GetDescription().size(),
              300u);
    std::string old, x(40000, 'x');
    for (int i = 0; old.size() < 600000; ++i)
        old += "line " + std::to_string(i) + "\n";
    // the limit, the file and the count before the record; what is kept, the count after (-1: no trim)
    const std::tuple<unsigned int, std::string, unsigned int, std::string, int> cases[] = {
        // what an earlier run left does not count: the counter starts at 0
        {512000, old, 512000 - 10, old.substr(old.size() - 256000), 256000},
        {512000, "short", 600000, "short", 5}, // a file cut short by someone else
        {32000, x, 4000000, x, -1},            // half of it at most 16000
        {0, x, 4000000, x, -1},                // no limit, kept for the loggers below
    };
    for (const auto& [limit, before, counted, kept, counter] : cases) {
        kesError::LogFileSize = limit;
        WriteFile(m_dir.File("kes.log"), before);
        kesError::_current_log_filesize = counted;
        kesError record(kesErrorFailed, "trigger");
        kesErrorLog(record);
        EXPECT_TRUE(Log() == kept + record.GetDescription()) << limit << " " << counted;
        EXPECT_EQ(counter < 0 ? counted + record.GetDescription().size() : (unsigned int)counter,
                  kesError::_current_log_filesize);
    }
    // loggers on several threads lose no record, nor a byte of the count
    WriteFile(m_dir.File("kes.log"), ""), kesError::_current_log_filesize = 0;
    auto log100 = [] {
        for (int i = 0; i < 100; ++i)
            kesErrorLog(kesError(kesErrorOk, "r"));
    };
    PeerThread first(log100), second(log100);
    log100();
    first.Join(), second.Join();
    // every record has the same size
    EXPECT_EQ(SEEN(300 * kesError(kesErrorOk, "r").GetDescription().size(), Log().size()),
              SEEN(Log().size(), kesError::_current_log_filesize));
}

// Anything but a regular file as the log file: the console is told once,
// with the path, and logging goes on, also through a trim.
TEST_F(LogToFile, AnIntruderIsToldOnceOnTheConsole)
{
    kesError::LogFileSize = 40000;
    for (const Intruder& intruder : INTRUDERS) {
        const std::string path = kesError::LogFile = m_dir.File(intruder.name);
        if (!PlaceIntruder(path, intruder))
            continue; // root reads every file
        ::testing::internal::CaptureStdout();
        EXPECT_TRUE(EndsWithin(5000, path, [] {
            kesErrorLog(kesError(kesErrorOk, "first"));
            kesErrorLog(kesError(kesErrorOk, "second"));
            kesError::_current_log_filesize = 50000;
            kesErrorLog(kesError(kesErrorOk, "trim"));
        }));
        const std::string console = ::testing::internal::GetCapturedStdout(),
                          told = "Log file " + path + intruder.words;
        EXPECT_EQ(SEEN(1, 1), SEEN(console.find(told) != std::string::npos, console.find(told) == console.rfind(told)))
            << console;
    }
}

TEST(KesString, NumbersSplitsEditsAndCommandLines)
{
    // whole numbers in the 32-bit range without a point; beyond it the zeros of the point only
    const std::tuple<double, int, const char*> cases[] = {
        {12.0, 1, "12"},        {-0.0, 1, "0"},           {12.50, 1, "12.5"},      {12.04, 1, "12"},
        {-0.04, 1, "-0"},       {1.25, 1, "1.2"},         {345.75, 1, "345.8"},    {1.2345, 3, "1.234"},
        {3e9, 1, "3000000000"}, {2.5e9, 0, "2500000000"}, {-1.0 / 0.0, 1, "-inf"}, {5e9 + 0.5, 2, "5000000000.5"}};
    for (const auto& [value, precision, text] : cases)
        EXPECT_EQ(text, kesString::FromDouble(value, precision)) << value;
    const std::pair<const char*, unsigned int> numbers[] = {
        {"12abc", 12u}, {"-1", 4294967295u}, {"99999999999", 4294967295u}, {"  257", 257u}, {" + 3", 0u}, {"- 3", 0u}};
    for (const auto& [text, value] : numbers)
        EXPECT_EQ(value, kesString::AsULong(text, 10)) << text;
    EXPECT_EQ(SEEN("0.1", 0, INT32_MIN),
              SEEN(kesString::FromFloat(0.1f, 3), kesString::AsInt("abc", 10), kesString::AsInt("-99999999999", 10)));
    const std::tuple<const char*, const char*, std::vector<std::string>> splits[] = {
        {"a,b", ",", {"a", "b"}}, {"a,,b", ",", {"a", "b"}}, {",a", ",", {"a"}},    {"a,", ",", {"a", ""}},
        {"", ",", {""}},          {",,", ",", {""}},         {"abc", ",", {"abc"}}, {"1||2|3", "||", {"1", "2|3"}},
    };
    for (const auto& [text, separator, pieces] : splits) {
        kesArray<kesString> parts;
        parts.AddBack("kept");
        kesString(text).GetSplit(&parts, separator);
        EXPECT_EQ(std::vector<std::string>(1, "kept"), std::vector<std::string>(parts.begin(), parts.begin() + 1));
        EXPECT_EQ(pieces, std::vector<std::string>(parts.begin() + 1, parts.end())) << text;
    }
    const std::tuple<const char*, bool, const char*> shrinks[] = {
        {"  a b  ", true, "a b  "}, {"  a b  ", false, "  a b"}, {"   ", true, "   "},
        {"   ", false, ""},         {"  ", false, " "},          {" ", false, ""}};
    for (const auto& [text, fromStart, result] : shrinks)
        EXPECT_EQ(result, kesString(text).SetShrink(" \t", fromStart)) << '"' << text << '"' << fromStart;
    kesString text("abcABCabc"), commas("a,b,,c"), mixed("One one ONE");
    EXPECT_EQ(SEEN(0, 6, 6, 0, 3, kesString::npos),
              SEEN(text.Find("abc", 0, false, false), text.Find("abc", 1, false, false),
                   text.Find("abc", 0, false, true), text.Find("abc", 4, false, true), text.Find("ABC", 4, true, true),
                   text.Find("xyz", 0, true, false)));
    // the replacement is not scanned again; a format never writes past its size
    commas.FindAndReplaceAll(",", ",,", false);
    mixed.FindAndReplaceAll("one", "Two", true);
    EXPECT_EQ("a,,b,,,,c Two Two Two x0123456 12-34",
              SEEN(commas, mixed, kesString("x").AddFormat(8, "%s", "0123456789"),
                   kesString("x").SetFormat(16, "%i-%i", 12, 34)));
    EXPECT_EQ("0 1 0 0", SEEN(kesString(static_cast<const char*>(nullptr)).SetShrink(" ", false).GetLength(),
                              kesString("ABC").IsEqualNoCase("abc"), kesString("abc").IsEqualNoCase("abcd"),
                              kesString("\xC4").IsEqualNoCase("\xE4")));
    // options match without case and take the next word
    const char* argv[] = {"prog", "-log", "-conf", "x", "-CONF", "y", "-dir"};
    kesCommandLineParser parser(const_cast<char* const*>(argv), 7);
    kesString conf("stale"), log, dir, help("stale");
    EXPECT_EQ("1 1 1 0 1 0 x|-conf||",
              SEEN(parser.GetArgument("-conf", &conf), parser.GetArgument("-LOG", &log),
                   parser.GetArgument("-dir", &dir), parser.GetArgument("-h", &help),
                   parser.GetArgument("-dir", nullptr), kesCommandLineParser(nullptr, 0).GetArgument("prog", nullptr),
                   conf + "|" + log + "|" + dir + "|" + help));
    // containers: a sorted unique array, a look-up that inserts nothing
    kesArray<unsigned short> values;
    values.assign({5, 3, 5, 1, 3});
    values.Unique(nullptr, nullptr);
    kesMap<int, int*> map;
    EXPECT_EQ(SEEN(1, 0, 1),
              SEEN(values == std::deque<unsigned short>{1, 3, 5}, map.GetKeyValue(7) != nullptr, map.empty()));
}
