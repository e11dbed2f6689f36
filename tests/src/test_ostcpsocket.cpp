#include "kes_ostcpsocket.h"

#include "error_capture.h"
#include "loopback.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace kes;
using kes_test::Bytes;
using kes_test::ErrorCapture;
using kes_test::Gate;
using kes_test::LoopbackServer;

namespace {

const unsigned int SHORT_TIMEOUT_MS = 100;

std::string port_text(const LoopbackServer& i_server)
{
    return std::to_string(i_server.Port());
}

} // namespace

TEST(OsTcpSocket, AddressForms)
{
    const int SERVER_PORT = -1;
    struct Case {
        const char* name;
        std::function<std::string(const LoopbackServer&)> address;
        int portArgument;
        bool connects;
        const char* record;
    };
    const Case cases[] = {
        {"host:port, port argument 0", [](const LoopbackServer& s) { return "127.0.0.1:" + port_text(s); }, 0, true,
         ""},
        {"host:port wins over the argument", [](const LoopbackServer& s) { return "127.0.0.1:" + port_text(s); }, 1,
         true, ""},
        {"blanks around host and port", [](const LoopbackServer& s) { return " 127.0.0.1 : " + port_text(s); }, 0, true,
         ""},
        {"host alone takes the argument", [](const LoopbackServer&) { return std::string("127.0.0.1"); }, SERVER_PORT,
         true, ""},
        {"host name", [](const LoopbackServer& s) { return "localhost:" + port_text(s); }, 0, true, ""},
        {"unknown host", [](const LoopbackServer& s) { return "no-such-host.invalid:" + port_text(s); }, 0, false,
         "gethostbyname failed"},
    };
    for (const Case& c : cases) {
        LoopbackServer server;
        server.Serve([](int, int) {}, 1, 2000);
        ErrorCapture errors;
        kesOsTcpSocket socket;
        unsigned short portArgument = c.portArgument == SERVER_PORT ? server.Port() : (unsigned short)c.portArgument;
        kesEError result = socket.Open(c.address(server).c_str(), portArgument);
        EXPECT_EQ(c.connects, result == kesErrorOk) << c.name << "\n" << errors.Dump();
        EXPECT_EQ(c.connects, socket.IsOpen()) << c.name;
        if (c.connects) {
            EXPECT_EQ("127.0.0.1:" + port_text(server), socket.GetPeerName()) << c.name;
            EXPECT_EQ(0u, errors.Count()) << c.name << "\n" << errors.Dump();
        } else {
            EXPECT_TRUE(errors.Contains(c.record)) << c.name << "\n" << errors.Dump();
            server.StopListening();
        }
    }
}

TEST(OsTcpSocket, RefusedConnectionKeepsTheSocketForARetry)
{
    int port = 0;
    {
        LoopbackServer gone;
        port = gone.Port();
    }
    ErrorCapture errors;
    kesOsTcpSocket socket;
    EXPECT_NE(kesErrorOk, socket.Open("127.0.0.1", (unsigned short)port));
    EXPECT_TRUE(errors.Contains("Can not connect socket\nStd Error "));
    EXPECT_EQ(std::vector<unsigned int>(1, kesErrorNetwork), errors.Codes());
    EXPECT_TRUE(socket.IsValid());
    EXPECT_FALSE(socket.IsOpen());

    LoopbackServer server;
    server.Serve([](int, int) {});
    EXPECT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
}

TEST(OsTcpSocket, ReplyShapes)
{
    struct Case {
        const char* name;
        Bytes first;
        int pauseMs; // between the two parts
        Bytes second;
        bool peerCloses; // else the peer holds the connection open
        int expected;
        int received;
        bool openAfter;
    };
    const Bytes ten = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    const Case cases[] = {
        {"whole reply", ten, 0, {}, false, 10, 10, true},
        {"reply in two parts within the time-out", {0, 1, 2, 3}, 30, {4, 5, 6, 7, 8, 9}, false, 10, 10, true},
        {"4 of 10 then time-out", {0, 1, 2, 3}, 0, {}, false, -2, 4, true},
        {"nothing then time-out", {}, 0, {}, false, -2, 0, true},
        {"4 of 10 then the peer closes", {0, 1, 2, 3}, 0, {}, true, -3, 4, false},
        {"the peer closes at once", {}, 0, {}, true, -3, 0, false},
    };
    for (const Case& c : cases) {
        Gate done;
        LoopbackServer server;
        server.Serve([&](int fd, int) {
            kes_test::WriteAll(fd, c.first);
            if (c.pauseMs > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(c.pauseMs));
            kes_test::WriteAll(fd, c.second);
            if (!c.peerCloses)
                done.Wait(5000);
        });
        ErrorCapture errors;
        kesOsTcpSocket socket;
        ASSERT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0)) << c.name;
        ASSERT_TRUE(socket.SetReceiveTimeOut(SHORT_TIMEOUT_MS));
        unsigned char buffer[10] = {0};
        int received = -100;
        EXPECT_EQ(c.expected, socket.Receive(buffer, sizeof(buffer), &received)) << c.name;
        EXPECT_EQ(c.received, received) << c.name;
        EXPECT_EQ(Bytes(ten.begin(), ten.begin() + c.received), Bytes(buffer, buffer + c.received)) << c.name;
        EXPECT_EQ(c.openAfter, socket.IsOpen()) << c.name;
        // neither a time-out nor a closing peer is a failure to log
        EXPECT_EQ(0u, errors.Count()) << c.name << "\n" << errors.Dump();
        done.Open();
    }
}

namespace {
std::atomic<int> g_sigpipes{0};
void count_sigpipe(int)
{
    ++g_sigpipes;
}
} // namespace

TEST(OsTcpSocket, SendToAVanishedPeerIsEpipeWithoutSignal)
{
    struct sigaction counting = {};
    struct sigaction saved = {};
    counting.sa_handler = count_sigpipe;
    sigaction(SIGPIPE, &counting, &saved);
    g_sigpipes = 0;

    LoopbackServer server;
    server.Serve([](int, int) {});
    kesOsTcpSocket socket;
    ASSERT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    server.Join();
    // the peer's FIN is here once the socket reads as ready
    ASSERT_TRUE(socket.IsReadyToReceive(2000));

    ErrorCapture errors;
    const unsigned char frame[8] = {1, 3, 0, 100, 0, 2, 0x85, 0xD4};
    int result = 0;
    // the first send is answered by a reset, a later one fails
    for (int attempt = 0; attempt < 100 && result != -1; ++attempt) {
        result = socket.Send(frame, sizeof(frame));
        if (result != -1)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(-1, result);
    EXPECT_EQ(1u, errors.CountContaining("send error\nStd Error 32 ")) << errors.Dump();
    EXPECT_EQ(0, g_sigpipes.load());
    sigaction(SIGPIPE, &saved, nullptr);
}

TEST(OsTcpSocket, SendWholeBuffersAndEmptyOnes)
{
    Bytes got;
    LoopbackServer server;
    server.Serve([&](int fd, int) { got = kes_test::ReadFor(fd, 100000, 3000); });
    kesOsTcpSocket socket;
    ASSERT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    EXPECT_EQ(0, socket.Send("", 0));
    Bytes big(100000);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = (unsigned char)(i * 7);
    EXPECT_EQ(100000, socket.Send(big.data(), (unsigned int)big.size()));
    server.Join();
    EXPECT_EQ(big, got);
}

TEST(OsTcpSocket, CloseTwiceAndReopen)
{
    std::atomic<bool> firstSawEnd{false};
    LoopbackServer server;
    server.ServeNotingFirstEnd(&firstSawEnd, 3);
    ErrorCapture errors;
    kesOsTcpSocket socket;
    ASSERT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    // a second Open drops the first connection
    ASSERT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    EXPECT_EQ(kesErrorOk, socket.Close());
    EXPECT_EQ(kesErrorOk, socket.Close());
    EXPECT_FALSE(socket.IsValid());
    EXPECT_FALSE(socket.IsOpen());
    EXPECT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    EXPECT_TRUE(socket.IsOpen());
    socket.Close();
    server.Join();
    EXPECT_TRUE(firstSawEnd);
    EXPECT_EQ(3, server.Accepted());
    EXPECT_EQ(0u, errors.Count()) << errors.Dump();
}

TEST(OsTcpSocket, OptionsAndNames)
{
    Gate done;
    LoopbackServer server;
    server.Serve([&](int, int) { done.Wait(5000); });
    kesOsTcpSocket socket;
    ASSERT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    // the kernel keeps time-outs in clock ticks
    EXPECT_TRUE(socket.SetReceiveTimeOut(250));
    EXPECT_NEAR(250, (int)socket.GetReceiveTimeOut(), 10);
    EXPECT_TRUE(socket.SetSendTimeOut(1500));
    EXPECT_NEAR(1500, (int)socket.GetSendTimeOut(), 10);
    EXPECT_TRUE(socket.SetKeepAlive(true));
    EXPECT_TRUE(socket.GetKeepAlive());
    EXPECT_EQ(0u, socket.GetName().find("127.0.0.1:"));
    EXPECT_FALSE(socket.IsReadyToReceive(0));
    done.Open();

    socket.Close();
    ErrorCapture errors;
    unsigned char byte = 0;
    EXPECT_FALSE(socket.SetReceiveTimeOut(100));
    EXPECT_EQ("", socket.GetPeerName());
    EXPECT_EQ(0u, socket.GetConnectionTime());
    EXPECT_EQ(-1, socket.Receive(&byte, 1, nullptr));
    EXPECT_EQ(-1, socket.Send(&byte, 1));
    EXPECT_EQ(3u, errors.CountContaining("Socket is invalid."));
    EXPECT_EQ(2u, errors.CountContaining("Socket is close."));
}

TEST(OsTcpSocket, FlushReceiveDropsPendingBytesAndRestoresTheTimeOut)
{
    Gate done;
    LoopbackServer server;
    server.Serve([&](int fd, int) {
        kes_test::WriteAll(fd, Bytes{1, 2, 3, 4, 5});
        done.Wait(5000);
    });
    kesOsTcpSocket socket;
    ASSERT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    ASSERT_TRUE(socket.SetReceiveTimeOut(700));
    ASSERT_TRUE(socket.IsReadyToReceive(2000));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    int count = -1;
    EXPECT_EQ(kesErrorOk, socket.FlushReceive(50, &count));
    EXPECT_EQ(5, count);
    EXPECT_NEAR(700, (int)socket.GetReceiveTimeOut(), 10);
    EXPECT_FALSE(socket.IsReadyToReceive(0));
    done.Open();
}

TEST(OsTcpSocket, DescriptorZeroIsNeverHeld)
{
    int savedStdin = dup(0);
    ASSERT_NE(-1, savedStdin);
    close(0);
    bool valid = false;
    {
        kesOsTcpSocket socket;
        valid = socket.IsValid();
    }
    // descriptor 0 is free again, so nothing of ours sits on it
    int probe = fcntl(0, F_GETFD);
    dup2(savedStdin, 0);
    close(savedStdin);
    EXPECT_TRUE(valid);
    EXPECT_EQ(-1, probe);
}

TEST(OsTcpSocket, ThreadsResolveNamesAtOnce)
{
    const int threads = 4;
    const int rounds = 10;
    LoopbackServer server;
    server.Serve([](int, int) {}, threads * rounds);
    std::atomic<int> connected{0};
    std::vector<std::thread> workers;
    std::string address = "localhost:" + port_text(server);
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&] {
            for (int r = 0; r < rounds; ++r) {
                kesOsTcpSocket socket;
                if (socket.Open(address.c_str(), 0) == kesErrorOk)
                    ++connected;
            }
        });
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(threads * rounds, connected.load());
}

TEST(OsTcpSocket, DescriptorAboveFdSetSize)
{
    Gate done;
    LoopbackServer server;
    server.Serve([&](int fd, int) {
        kes_test::WriteAll(fd, Bytes{1, 2, 3});
        done.Wait(5000);
    });
    kes_test::DescriptorFloor floor;
    if (!floor.IsReached())
        GTEST_SKIP() << "descriptor limit too low";
    kesOsTcpSocket socket;
    ASSERT_EQ(kesErrorOk, socket.Open(server.Address().c_str(), 0));
    EXPECT_TRUE(socket.IsReadyToReceive(2000));
    EXPECT_TRUE(socket.IsReadyToSend(0));
    done.Open();
}
