#include "kes_energy_mira.h"

#include "datagram_receiver.h"
#include "error_capture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using kes_test::DatagramReceiver;
namespace Energy = kes::Energy;

struct DatagramCase {
    const char* name;
    unsigned int iid;
    std::string text;
    std::string bytes; // the whole datagram, on a little-endian host
};

std::ostream& operator<<(std::ostream& out, const DatagramCase& c)
{
    return out << c.name;
}

const DatagramCase DATAGRAM_CASES[] = {
    {"measurement", 1201, "230.5",
     std::string("\xB1\x04\x00\x00\x05"
                 "230.5",
                 10)},
    {"missing_reading", 1201, "f",
     std::string("\xB1\x04\x00\x00\x01"
                 "f",
                 6)},
    {"zero", 7, "0",
     std::string("\x07\x00\x00\x00\x01"
                 "0",
                 6)},
    {"high_item_number", 0x12345678u, "1",
     std::string("\x78\x56\x34\x12\x01"
                 "1",
                 6)},
    {"empty_text", 0xFFFFFFFFu, "", std::string("\xFF\xFF\xFF\xFF\x00", 5)},
    {"longest_text", 3, std::string(255, 'a'), std::string("\x03\x00\x00\x00\xFF", 5) + std::string(255, 'a')},
};

class MiraDatagram : public ::testing::TestWithParam<DatagramCase> {};

TEST_P(MiraDatagram, ReceiverGetsTheExactRecord)
{
    unsigned int one = 1;
    if (*reinterpret_cast<unsigned char*>(&one) != 1)
        GTEST_SKIP() << "expected bytes are written for a little-endian host";
    const DatagramCase& c = GetParam();
    DatagramReceiver receiver;
    EXPECT_EQ(Energy::kesEnergySendToMira(c.iid, c.text, receiver.Port()), static_cast<int>(c.bytes.size()));
    std::string datagram;
    ASSERT_TRUE(receiver.Receive(&datagram));
    EXPECT_EQ(datagram, c.bytes);
}

INSTANTIATE_TEST_SUITE_P(Records, MiraDatagram, ::testing::ValuesIn(DATAGRAM_CASES),
                         [](const ::testing::TestParamInfo<DatagramCase>& info) { return info.param.name; });

TEST(MiraDatagramLimits, TextBeyondTheLengthByteIsRefusedWholeWithAReport)
{
    kes_test::ErrorCapture captured;
    DatagramReceiver receiver;
    EXPECT_EQ(Energy::kesEnergySendToMira(5, std::string(256, 'b'), receiver.Port()), -1);
    EXPECT_EQ(captured.CountContaining("Text of item 5 is 256 bytes, over 255: not published"), 1u);
    std::string datagram;
    EXPECT_FALSE(receiver.Receive(&datagram, 200));
}

// Lines publish from their own threads at once: every datagram must arrive
// whole, never mixed with another.
TEST(MiraDatagramLimits, ConcurrentPublishersSendWholeRecords)
{
    const unsigned int threads = 4, perThread = 50;
    DatagramReceiver receiver;
    std::vector<std::thread> publishers;
    for (unsigned int t = 0; t < threads; ++t)
        publishers.emplace_back([t, &receiver] {
            for (unsigned int iid = t * 1000; iid < t * 1000 + perThread; ++iid)
                Energy::kesEnergySendToMira(iid, std::to_string(iid * 7), receiver.Port());
        });
    for (std::thread& publisher : publishers)
        publisher.join();

    std::set<unsigned int> seen;
    std::string datagram;
    while (seen.size() < threads * perThread && receiver.Receive(&datagram, 1000)) {
        ASSERT_GE(datagram.size(), 5u);
        unsigned int iid;
        memcpy(&iid, datagram.data(), 4);
        std::string text = std::to_string(iid * 7);
        EXPECT_EQ(datagram.substr(4), std::string(1, static_cast<char>(text.size())) + text);
        seen.insert(iid);
    }
    EXPECT_EQ(seen.size(), threads * perThread);
}

} // namespace
