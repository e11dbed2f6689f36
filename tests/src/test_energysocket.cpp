#include "kes_energysocket.h"

#include "error_capture.h"
#include "loopback.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace kes;
using kes_test::Bytes;
using kes_test::ErrorCapture;
using kes_test::Gate;
using kes_test::LoopbackServer;
using kes_test::PeerThread;
using kes_test::PtyPair;

namespace {

const Bytes REQUEST = {0x01, 0x03, 0x00, 0x64, 0x00, 0x02, 0x85, 0xD4};
const Bytes REPLY = {0x01, 0x03, 0x04, 0x00, 0x01, 0x00, 0x02, 0x2A, 0x32};
const unsigned int SERIAL_TIMEOUT_MS = 300;

// The serial peer of one exchange: reads the request, answers with an echo
// shaped by i_echo and then with i_reply.
void serial_peer(int i_master, size_t i_requestSize, std::function<Bytes(const Bytes&)> i_echo, const Bytes& i_reply)
{
    Bytes request = kes_test::ReadFor(i_master, i_requestSize, 2000);
    kes_test::WriteAll(i_master, i_echo(request));
    kes_test::WriteAll(i_master, i_reply);
}

Bytes same(const Bytes& i_request)
{
    return i_request;
}

// One Receive into a buffer the size of REPLY: what it returns, the count it
// gives beside that, and the buffer.
struct Received {
    int result;
    int count;
    Bytes bytes;
};

Received receive(kesEnergySocket& io_channel)
{
    unsigned char reply[9] = {0};
    int count = -1;
    const int result = io_channel.Receive(reply, sizeof(reply), &count);
    return {result, count, Bytes(reply, reply + sizeof(reply))};
}

} // namespace

TEST(EnergySocket, AddressPicksTheChannel)
{
    PtyPair lower("dev/ttyUSB0");
    PtyPair mixed("x/DEV/TtYuSb3");
    PtyPair named("dev/ttyUSB-plant-north");
    LoopbackServer server;
    server.Serve([](int, int) {}, 1, 2000);
    kes_test::TempDir dir;
    struct Case {
        const char* name;
        std::string address;
        bool serial;
        bool opens;
        bool valid;
    };
    const Case cases[] = {
        {"serial adapter", lower.LinkPath(), true, true, true},
        {"any case, anywhere", mixed.LinkPath(), true, true, true},
        {"stable name of a udev rule", named.LinkPath(), true, true, true},
        // the port object stays, without a handle
        {"missing adapter", dir.Path() + "/dev/ttyUSB9", true, false, false},
        {"gateway", server.Address(), false, true, true},
        // the socket is made before the name is looked up
        {"no /dev/ before the name", "ttyUSB0", false, false, true},
    };
    for (const Case& c : cases) {
        ErrorCapture errors;
        kesEnergySocket channel;
        EXPECT_EQ(c.opens, channel.Open(c.address.c_str(), 502) == kesErrorOk) << c.name << "\n" << errors.Dump();
        EXPECT_EQ(c.serial, channel.IsSerial()) << c.name;
        EXPECT_EQ(c.opens, channel.IsOpen()) << c.name;
        EXPECT_EQ(c.valid, channel.IsValid()) << c.name;
        EXPECT_EQ(c.serial || c.valid, channel.SetReceiveTimeOut(100)) << c.name;
    }
}

TEST(EnergySocket, NewChannelHasNothing)
{
    kesEnergySocket channel;
    unsigned char byte = 0;
    int received = 7;
    ErrorCapture errors;
    EXPECT_FALSE(channel.SetReceiveTimeOut(100));
    EXPECT_EQ(0u, channel.GetReceiveTimeOut());
    EXPECT_FALSE(channel.IsOpen());
    EXPECT_FALSE(channel.IsValid());
    EXPECT_EQ(-1, channel.Send(&byte, 1));
    EXPECT_EQ(-1, channel.Receive(&byte, 1, &received));
    EXPECT_EQ(0, received);
    EXPECT_EQ(kesErrorOk, channel.Close());
    EXPECT_EQ(0u, errors.Count());
}

TEST(EnergySocket, SerialEchoShapes)
{
    struct Case {
        const char* name;
        std::function<Bytes(const Bytes&)> echo;
        int sendResult;
        const char* record; // "" for none
    };
    const Case cases[] = {
        {"echo", same, 8, ""},
        {"no echo", [](const Bytes&) { return Bytes(); }, 0,
         "Echo not equal\n[0x01][0x00]\n[0x03][0x00]\n[0x00][0x00]\n[0x64][0x00]\n[0x00][0x00]\n[0x02][0x00]\n"
         "[0x85][0x00]\n[0xD4][0x00]\n"},
        {"short echo", [](const Bytes& r) { return Bytes(r.begin(), r.begin() + 5); }, 5,
         "Echo not equal\n[0x01][0x01]\n[0x03][0x03]\n[0x00][0x00]\n[0x64][0x64]\n[0x00][0x00]\n[0x02][0x00]\n"},
        {"wrong echo",
         [](const Bytes& r) {
             Bytes e = r;
             e[1] = 0x83;
             return e;
         },
         8, "Echo not equal\n[0x01][0x01]\n[0x03][0x83]\n[0x00][0x00]\n[0x64][0x64]\n"},
    };
    for (const Case& c : cases) {
        PtyPair pty;
        kesEnergySocket channel;
        ASSERT_EQ(kesErrorOk, channel.Open(pty.LinkPath().c_str(), 0)) << c.name;
        ASSERT_TRUE(channel.SetReceiveTimeOut(c.sendResult == 8 ? SERIAL_TIMEOUT_MS : 60));
        // without a proper echo the reply would pass for one: the peer then stays quiet
        PeerThread peer(
            [&] { serial_peer(pty.Master(), REQUEST.size(), c.echo, c.sendResult == 8 ? REPLY : Bytes()); });
        ErrorCapture errors;
        EXPECT_EQ(c.sendResult, channel.Send(REQUEST.data(), (unsigned int)REQUEST.size())) << c.name;
        if (*c.record == 0) {
            EXPECT_EQ(0u, errors.Count()) << c.name << "\n" << errors.Dump();
        } else {
            EXPECT_EQ(1u, errors.Count()) << c.name << "\n" << errors.Dump();
            EXPECT_TRUE(errors.Contains(c.record)) << c.name << "\n" << errors.Dump();
        }
        peer.Join();
        if (c.sendResult == 8) {
            const Received got = receive(channel);
            EXPECT_EQ(9, got.result) << c.name;
            EXPECT_EQ(9, got.count);
            EXPECT_EQ(REPLY, got.bytes) << c.name;
        }
        EXPECT_TRUE(channel.IsOpen()) << c.name;
    }
}

TEST(EnergySocket, ShortReplyOnBothChannels)
{
    const Bytes five(REPLY.begin(), REPLY.begin() + 5);
    // serial: the count so far, never -2
    {
        PtyPair pty;
        kesEnergySocket channel;
        ASSERT_EQ(kesErrorOk, channel.Open(pty.LinkPath().c_str(), 0));
        channel.SetReceiveTimeOut(80);
        kes_test::WriteAll(pty.Master(), five);
        const Received got = receive(channel);
        EXPECT_EQ(5, got.result);
        EXPECT_EQ(5, got.count);
        EXPECT_TRUE(channel.IsOpen());
    }
    // TCP: a time-out, with the count beside it
    {
        Gate done;
        LoopbackServer server;
        server.Serve([&](int fd, int) {
            kes_test::WriteAll(fd, five);
            done.Wait(5000);
        });
        kesEnergySocket channel;
        ASSERT_EQ(kesErrorOk, channel.Open(server.Address().c_str(), 0));
        channel.SetReceiveTimeOut(80);
        const Received got = receive(channel);
        EXPECT_EQ(-2, got.result);
        EXPECT_EQ(5, got.count);
        EXPECT_TRUE(channel.IsOpen());
        done.Open();
    }
}

TEST(EnergySocket, SerialAdapterPulledOutClosesTheChannelAndItReopens)
{
    PtyPair pty;
    kesEnergySocket channel;
    ASSERT_EQ(kesErrorOk, channel.Open(pty.LinkPath().c_str(), 0));
    channel.SetReceiveTimeOut(50);
    pty.CloseMaster();
    {
        ErrorCapture errors;
        int result = channel.Send(REQUEST.data(), (unsigned int)REQUEST.size());
        EXPECT_TRUE(result == -1 || result == -3) << result;
        EXPECT_TRUE(errors.Contains("write(...) == -1\nStd Error 5 ")) << errors.Dump();
        EXPECT_FALSE(channel.IsOpen());
    }
    ASSERT_TRUE(pty.Replug());
    ASSERT_EQ(kesErrorOk, channel.Open(pty.LinkPath().c_str(), 0));
    channel.SetReceiveTimeOut(SERIAL_TIMEOUT_MS);
    PeerThread peer([&] { serial_peer(pty.Master(), REQUEST.size(), same, REPLY); });
    EXPECT_EQ(8, channel.Send(REQUEST.data(), (unsigned int)REQUEST.size()));
}

TEST(EnergySocket, LostGatewayClosesTheChannelAndItReopens)
{
    LoopbackServer server;
    server.Serve(
        [](int, int index) {
            if (index == 1)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        },
        2);
    kesEnergySocket channel;
    ASSERT_EQ(kesErrorOk, channel.Open(server.Address().c_str(), 0));
    channel.SetReceiveTimeOut(2000);
    EXPECT_EQ(-3, receive(channel).result);
    EXPECT_FALSE(channel.IsOpen());
    EXPECT_TRUE(channel.IsValid() == false);
    ErrorCapture errors;
    // closed: later transfers fail at once
    EXPECT_EQ(-1, channel.Send(REQUEST.data(), (unsigned int)REQUEST.size()));
    EXPECT_EQ(kesErrorOk, channel.Open(server.Address().c_str(), 0));
    EXPECT_TRUE(channel.IsOpen());
}

TEST(EnergySocket, OpeningAgainDropsTheFirstConnection)
{
    std::atomic<bool> firstSawEnd{false};
    LoopbackServer server;
    server.ServeNotingFirstEnd(&firstSawEnd, 2);
    kesEnergySocket channel;
    ASSERT_EQ(kesErrorOk, channel.Open(server.Address().c_str(), 0));
    ASSERT_EQ(kesErrorOk, channel.Open(server.Address().c_str(), 0));
    channel.Close();
    server.Join();
    EXPECT_TRUE(firstSawEnd);
}

TEST(EnergySocket, TwoSerialLinesAtOnceKeepTheirOwnEchoes)
{
    // short frames: little time asleep on the line, much time in the echo buffer
    const int rounds = 200;
    std::atomic<int> good[2] = {{0}, {0}};
    std::atomic<int> records{0};
    {
        ErrorCapture errors;
        std::vector<std::thread> lines;
        for (int line = 0; line < 2; ++line)
            lines.emplace_back([&, line] {
                PtyPair pty;
                kesEnergySocket channel;
                if (channel.Open(pty.LinkPath().c_str(), 0) != kesErrorOk)
                    return;
                channel.SetReceiveTimeOut(SERIAL_TIMEOUT_MS);
                Bytes frame(3, (unsigned char)(0x10 + line));
                PeerThread peer([&] {
                    for (int r = 0; r < rounds; ++r)
                        kes_test::WriteAll(pty.Master(), kes_test::ReadFor(pty.Master(), frame.size(), 2000));
                });
                for (int r = 0; r < rounds; ++r) {
                    frame[2] = (unsigned char)r;
                    if (channel.Send(frame.data(), (unsigned int)frame.size()) == 3)
                        ++good[line];
                }
            });
        for (std::thread& line : lines)
            line.join();
        records = (int)errors.Count();
    }
    EXPECT_EQ(rounds, good[0].load());
    EXPECT_EQ(rounds, good[1].load());
    EXPECT_EQ(0, records.load());
}

TEST(EnergySocket, FrameLongerThanTheEchoBufferIsRefused)
{
    PtyPair pty;
    kesEnergySocket channel;
    ASSERT_EQ(kesErrorOk, channel.Open(pty.LinkPath().c_str(), 0));
    Bytes huge(kesEnergySocket::ECHO_BUFFER_SIZE + 1, 0);
    ErrorCapture errors;
    EXPECT_EQ(-1, channel.Send(huge.data(), (unsigned int)huge.size()));
    EXPECT_EQ(1u, errors.Count());
    EXPECT_TRUE(kes_test::ReadFor(pty.Master(), 1, 20).empty());
}

TEST(EnergySocket, HelperSendPurgeEcho)
{
    struct Case {
        const char* name;
        Bytes answer;
        int expected;
        const char* record;
    };
    const Case cases[] = {
        {"answer of the frame's size", Bytes(8, 0xAA), 8, ""},
        {"no answer", {}, kesErrorFailed, "Timeout response not received...\n"},
    };
    for (const Case& c : cases) {
        Gate done;
        LoopbackServer server;
        server.Serve([&](int fd, int) {
            kes_test::ReadFor(fd, 8, 2000);
            kes_test::WriteAll(fd, c.answer);
            done.Wait(5000);
        });
        kesEnergySocket channel;
        ASSERT_EQ(kesErrorOk, channel.Open(server.Address().c_str(), 0));
        channel.SetReceiveTimeOut(80);
        ErrorCapture errors;
        EXPECT_EQ(c.expected, __SEND_PURGE_ECHO__(&channel, REQUEST.data(), (unsigned int)REQUEST.size())) << c.name;
        if (*c.record == 0) {
            EXPECT_EQ(0u, errors.Count()) << c.name << "\n" << errors.Dump();
        } else {
            EXPECT_TRUE(errors.Contains(c.record)) << c.name << "\n" << errors.Dump();
        }
        done.Open();
    }
    ErrorCapture errors;
    EXPECT_EQ(kesErrorInvalidArgument, __SEND_PURGE_ECHO__(nullptr, REQUEST.data(), 8));
}

TEST(EnergySocket, HelperReceiveLessAndSeal)
{
    Gate done;
    LoopbackServer server;
    server.Serve([&](int fd, int) {
        kes_test::WriteAll(fd, Bytes{9, 8, 7, 6});
        done.Wait(5000);
    });
    kesEnergySocket channel;
    ASSERT_EQ(kesErrorOk, channel.Open(server.Address().c_str(), 0));
    channel.SetReceiveTimeOut(80);
    unsigned char data[4] = {0};
    unsigned char frame[8] = {0x01, 0x03, 0x00, 0x64, 0x00, 0x02, 0, 0};
    EXPECT_EQ(kesErrorOk, __RECV_LESS_BYTE__(&channel, data, 8, frame));
    EXPECT_EQ((Bytes{9, 8, 7, 6}), Bytes(data, data + 4));
    EXPECT_EQ(REQUEST, Bytes(frame, frame + 8));

    // nothing more comes: a time-out
    ErrorCapture errors;
    EXPECT_EQ(kesErrorFailed, __RECV_LESS_BYTE__(&channel, data, 8, frame));
    EXPECT_TRUE(errors.Contains("Timeout response not received...\n"));
    EXPECT_EQ(kesErrorInvalidArgument, __RECV_LESS_BYTE__(&channel, data, 3, frame));
    done.Open();
}

TEST(EnergySocket, HelperFlushDataSocket)
{
    Gate done;
    LoopbackServer server;
    server.Serve([&](int fd, int) {
        kes_test::WriteAll(fd, Bytes(10, 0x33));
        done.Wait(5000);
    });
    kesEnergySocket channel;
    ASSERT_EQ(kesErrorOk, channel.Open(server.Address().c_str(), 0));
    channel.SetReceiveTimeOut(1000);
    EXPECT_EQ(kesErrorOk, __FLUSH_DATA_SOCKET__(&channel, 30));
    EXPECT_NEAR(1000, (int)channel.GetReceiveTimeOut(), 10);
    channel.SetReceiveTimeOut(20);
    unsigned char byte = 0;
    EXPECT_EQ(-2, channel.Receive(&byte, 1, nullptr));
    done.Open();

    // serial: the stored time-out comes back as it was
    PtyPair pty;
    kesEnergySocket serial;
    ASSERT_EQ(kesErrorOk, serial.Open(pty.LinkPath().c_str(), 0));
    serial.SetReceiveTimeOut(250);
    kes_test::WriteAll(pty.Master(), Bytes(10, 0x33));
    EXPECT_EQ(kesErrorOk, __FLUSH_DATA_SOCKET__(&serial, 20));
    EXPECT_EQ(250u, serial.GetReceiveTimeOut());
    EXPECT_EQ(0, serial.Receive(&byte, 1, nullptr));
}
