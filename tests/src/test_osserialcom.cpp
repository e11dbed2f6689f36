#include "kes_osserialcom.h"

#include "error_capture.h"
#include "loopback.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using namespace kes;
using kes_test::Bytes;
using kes_test::ErrorCapture;
using kes_test::PtyPair;

namespace {

typedef std::chrono::steady_clock Clock;

kesEError open_9600_8n1(kesOsSerialCom& io_port, const std::string& i_path)
{
    return io_port.Open(i_path.c_str(), kesOsSerialCom::Baud9600, kesOsSerialCom::DataBits8, kesOsSerialCom::ParityNone,
                        kesOsSerialCom::StopBitsOne, kesOsSerialCom::FlowControlNone);
}

long elapsed_ms(Clock::time_point i_start)
{
    return (long)std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - i_start).count();
}

// records the order of the hooks
class HookedPort : public kesOsSerialCom {
public:
    HookedPort() : kesOsSerialCom(false) {}
    std::string calls;

protected:
    void OnConnectionClose() override { calls += "close;"; }
    void OnConnectionOpen() override { calls += "open;"; }
};

} // namespace

TEST(OsSerialCom, LineSettingsGiveTheByteRate)
{
    struct Case {
        const char* name;
        kesOsSerialCom::EBaudRate baud;
        kesOsSerialCom::EDataBits dataBits;
        kesOsSerialCom::EParity parity;
        kesOsSerialCom::EStopBits stopBits;
        unsigned int bitsPerByte;
        unsigned int bytesPerSecond;
        unsigned int waitFor8Bytes;
    };
    typedef kesOsSerialCom S;
    const Case cases[] = {
        {"9600 8N1", S::Baud9600, S::DataBits8, S::ParityNone, S::StopBitsOne, 10, 960, 8},
        {"9600 8E1", S::Baud9600, S::DataBits8, S::ParityEven, S::StopBitsOne, 11, 872, 9},
        {"9600 7N2", S::Baud9600, S::DataBits7, S::ParityNone, S::StopBitsTwo, 10, 960, 8},
        {"300 5N1", S::Baud300, S::DataBits5, S::ParityNone, S::StopBitsOne, 7, 42, 190},
        {"115200 8N1", S::Baud115200, S::DataBits8, S::ParityNone, S::StopBitsOne, 10, 11520, 0},
        {"57600 6O2", S::Baud57600, S::DataBits6, S::ParityOdd, S::StopBitsTwo, 10, 5760, 1},
    };
    for (const Case& c : cases) {
        PtyPair pty;
        ASSERT_TRUE(pty.IsValid());
        kesOsSerialCom port(false);
        EXPECT_EQ(0u, port.GetMaxBytesPerSecond());
        ASSERT_EQ(kesErrorOk, port.Open(pty.LinkPath().c_str(), c.baud, c.dataBits, c.parity, c.stopBits,
                                        kesOsSerialCom::FlowControlNone))
            << c.name;
        EXPECT_EQ(c.bitsPerByte, port.GetBitsPerByte()) << c.name;
        EXPECT_EQ(c.bytesPerSecond, port.GetMaxBytesPerSecond()) << c.name;
        EXPECT_EQ(c.waitFor8Bytes, port.GetReceiveWaitTime(8)) << c.name;
    }
}

TEST(OsSerialCom, SendWaitsForTheBytesToLeaveTheLine)
{
    PtyPair pty;
    kesOsSerialCom port(false);
    ASSERT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath()));
    const unsigned char frame[8] = {1, 3, 0, 100, 0, 2, 0x85, 0xD4};
    Clock::time_point start = Clock::now();
    EXPECT_EQ(8, port.Send(frame, sizeof(frame)));
    // 8 bytes at 960 bytes a second: 8333 microseconds
    EXPECT_GE(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count(), 8333);
    EXPECT_EQ(Bytes(frame, frame + 8), kes_test::ReadFor(pty.Master(), 8, 1000));
    EXPECT_EQ(0, port.Send(frame, 0));
}

TEST(OsSerialCom, TimedReceiveGivesWhatCameNeverMinusTwo)
{
    struct Case {
        const char* name;
        Bytes first;
        int pauseMs;
        Bytes second;
        unsigned int length;
        unsigned long timeOut;
        int expected;
    };
    const Case cases[] = {
        {"whole reply", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 0, {}, 10, 200, 10},
        {"4 of 10", {1, 2, 3, 4}, 0, {}, 10, 60, 4},
        {"5 of 9", {1, 2, 3, 4, 5}, 0, {}, 9, 60, 5},
        {"nothing", {}, 0, {}, 9, 30, 0},
        {"reply in two parts", {1, 2, 3}, 20, {4, 5, 6, 7, 8, 9}, 9, 500, 9},
        {"time-out 0 still reads once", {1, 2}, 0, {}, 2, 0, 2},
    };
    for (const Case& c : cases) {
        PtyPair pty;
        kesOsSerialCom port(false);
        ASSERT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath())) << c.name;
        kes_test::WriteAll(pty.Master(), c.first);
        // let the first part reach the slave before the read starts
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        kes_test::PeerThread peer([&] {
            if (c.pauseMs > 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(c.pauseMs));
                kes_test::WriteAll(pty.Master(), c.second);
            }
        });
        ErrorCapture errors;
        unsigned char buffer[16] = {0};
        Clock::time_point start = Clock::now();
        int got = port.Receive(buffer, c.length, 5, c.timeOut);
        long took = elapsed_ms(start);
        peer.Join();
        EXPECT_EQ(c.expected, got) << c.name;
        if (c.expected < (int)c.length) {
            EXPECT_GE(took, (long)c.timeOut) << c.name;
        }
        Bytes all = c.first;
        all.insert(all.end(), c.second.begin(), c.second.end());
        EXPECT_EQ(Bytes(all.begin(), all.begin() + std::max(got, 0)), Bytes(buffer, buffer + std::max(got, 0)))
            << c.name;
        EXPECT_EQ(0u, errors.Count()) << c.name << "\n" << errors.Dump();
    }
}

TEST(OsSerialCom, PlainReceiveWithNothingIsMinusTwoSilently)
{
    PtyPair pty;
    kesOsSerialCom port(false);
    ASSERT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath()));
    ErrorCapture errors;
    unsigned char byte = 0;
    EXPECT_EQ(-2, port.Receive(&byte, 1));
    EXPECT_FALSE(port.IsReadyToReceive(0));
    kes_test::WriteAll(pty.Master(), Bytes{0x42});
    EXPECT_TRUE(port.IsReadyToReceive(1000));
    EXPECT_EQ(1, port.Receive(&byte, 1));
    EXPECT_EQ(0x42, byte);
    EXPECT_EQ(0u, errors.Count()) << errors.Dump();
}

TEST(OsSerialCom, AdapterPulledOut)
{
    PtyPair pty;
    kesOsSerialCom port(false);
    ASSERT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath()));
    pty.CloseMaster();

    ErrorCapture errors;
    unsigned char buffer[9] = {0};
    // a hung-up line reads as no data until the time limit
    EXPECT_EQ(0, port.Receive(buffer, sizeof(buffer), 5, 20));
    EXPECT_EQ(-1, port.Flush());
    EXPECT_TRUE(errors.Contains("Can not flush serial\nStd Error 5 "));
    // the loss is found by the write
    EXPECT_EQ(-3, port.Send(buffer, 8));
    EXPECT_TRUE(errors.Contains("write(...) == -1\nStd Error 5 ")) << errors.Dump();
    // auto-reconnect is off: the port stays as it was for its owner to close
    EXPECT_TRUE(port.IsValid());
    EXPECT_EQ(kesErrorOk, port.Close());
    EXPECT_FALSE(port.IsValid());
}

TEST(OsSerialCom, OpenFailures)
{
    kes_test::TempDir dir;
    std::string missing = dir.Path() + "/dev/ttyUSB7";
    ErrorCapture errors;
    kesOsSerialCom port(false);
    EXPECT_NE(kesErrorOk, open_9600_8n1(port, missing));
    EXPECT_FALSE(port.IsValid());
    EXPECT_TRUE(errors.Contains("open(...) == -1 at " + missing + "\nStd Error 2 ")) << errors.Dump();

    errors.Clear();
    unsigned char value = 0;
    EXPECT_EQ(-1, port.Send(&value, 1));
    EXPECT_EQ(-1, port.Receive(&value, 1));
    EXPECT_EQ(-1, port.Receive(&value, 1, 5, 10));
    EXPECT_EQ(-1, port.Flush());
    EXPECT_FALSE(port.IsReadyToReceive(0));
    EXPECT_NE(kesErrorOk, port.GetRTS(&value));
    EXPECT_EQ(6u, errors.CountContaining("Invalid handle"));
}

TEST(OsSerialCom, FailedSpeedKeepsTheDescriptorUntilTheNextOpen)
{
    PtyPair pty;
    HookedPort port;
    ErrorCapture errors;
    EXPECT_NE(kesErrorOk,
              port.Open(pty.LinkPath().c_str(), kesOsSerialCom::EBaudRate(12345), kesOsSerialCom::DataBits8,
                        kesOsSerialCom::ParityNone, kesOsSerialCom::StopBitsOne, kesOsSerialCom::FlowControlNone));
    EXPECT_TRUE(errors.Contains("cfsetospeed(...) == -1 at " + pty.LinkPath())) << errors.Dump();
    EXPECT_TRUE(port.IsValid());
    EXPECT_EQ("", port.calls);
    EXPECT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath()));
    EXPECT_EQ("close;open;", port.calls);
}

TEST(OsSerialCom, ReopenAndCloseTwice)
{
    PtyPair pty;
    HookedPort port;
    ASSERT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath()));
    ASSERT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath()));
    EXPECT_EQ("open;close;open;", port.calls);
    EXPECT_EQ(kesErrorOk, port.Close());
    EXPECT_EQ(kesErrorOk, port.Close());
    EXPECT_EQ("open;close;open;close;", port.calls);
}

TEST(OsSerialCom, FlushDropsPendingBytes)
{
    PtyPair pty;
    kesOsSerialCom port(false);
    ASSERT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath()));
    kes_test::WriteAll(pty.Master(), Bytes(20, 0x55));
    ASSERT_TRUE(port.IsReadyToReceive(1000));
    EXPECT_EQ(kesErrorOk, port.Flush(0, 20));
    unsigned char byte = 0;
    EXPECT_EQ(-2, port.Receive(&byte, 1));

    kes_test::WriteAll(pty.Master(), Bytes(20, 0x55));
    ASSERT_TRUE(port.IsReadyToReceive(1000));
    EXPECT_EQ(0, port.Flush());
    EXPECT_EQ(-2, port.Receive(&byte, 1));
}

TEST(OsSerialCom, ModemLines)
{
    PtyPair pty;
    kesOsSerialCom port(false);
    ASSERT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath()));
    ErrorCapture errors;
    EXPECT_EQ(kesErrorInvalidArgument, port.GetDTR(nullptr));
    EXPECT_TRUE(errors.Contains("o_pVal == 0"));
    // a pseudo-terminal has no modem lines: the failure is reported with the device
    unsigned char value = 0;
    EXPECT_NE(kesErrorOk, port.GetRTS(&value));
    EXPECT_NE(kesErrorOk, port.SetDTR(1));
    EXPECT_EQ(2u, errors.CountContaining("ioctl(...) == -1 at " + pty.LinkPath()));
}

TEST(OsSerialCom, DescriptorAboveFdSetSize)
{
    PtyPair pty;
    kes_test::DescriptorFloor floor;
    if (!floor.IsReached())
        GTEST_SKIP() << "descriptor limit too low";
    kesOsSerialCom port(false);
    ASSERT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath()));
    kes_test::WriteAll(pty.Master(), Bytes{7, 8});
    EXPECT_TRUE(port.IsReadyToReceive(1000));
    unsigned char buffer[2] = {0};
    EXPECT_EQ(2, port.Receive(buffer, 2, 1, 100));
}

TEST(OsSerialCom, AutoReconnectReopensWhenTheAdapterReturns)
{
    PtyPair pty;
    kesOsSerialCom port(true);
    EXPECT_TRUE(port.GetAutoReconnect());
    ASSERT_EQ(kesErrorOk, open_9600_8n1(port, pty.LinkPath()));
    ErrorCapture errors;
    pty.CloseMaster();
    unsigned char frame[8] = {0};
    EXPECT_EQ(-3, port.Send(frame, sizeof(frame)));
    // the port closed itself and a thread retries every 500 ms
    EXPECT_FALSE(port.IsValid());
    ASSERT_TRUE(pty.Replug());
    Clock::time_point start = Clock::now();
    while (!port.IsValid() && elapsed_ms(start) < 5000)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_TRUE(port.IsValid()) << errors.Dump();
    EXPECT_EQ(8, port.Send(frame, sizeof(frame)));
    EXPECT_EQ(Bytes(8, 0), kes_test::ReadFor(pty.Master(), 8, 1000));
}

TEST(OsSerialCom, AutoReconnectStopsWithThePort)
{
    kes_test::TempDir dir;
    std::string missing = dir.Path() + "/dev/ttyUSB0";
    ErrorCapture errors;
    Clock::time_point start = Clock::now();
    {
        kesOsSerialCom port(true);
        EXPECT_NE(kesErrorOk, open_9600_8n1(port, missing));
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        EXPECT_FALSE(port.IsValid());
    }
    // the retries ran while the port lived, and the thread ended with it
    EXPECT_GE(errors.CountContaining("open(...) == -1 at " + missing), 2u);
    EXPECT_LT(elapsed_ms(start), 3000);
}
