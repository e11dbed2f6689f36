// The daemon process end to end: a gateway on loopback, the datagram port of
// the local receiver, and SIGTERM.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "kes_net_test_support.h"
#include "test_gateway.h"
#include "test_process.h"

namespace {

using Datagram = kes_test::PublishedDatagram;

std::vector<Datagram> receive_for(kes_test::DatagramReceiver& receiver, unsigned int milliseconds)
{
    std::vector<Datagram> got;
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    std::string datagram;
    while (std::chrono::steady_clock::now() < end) {
        if (!receiver.Receive(&datagram, 50))
            continue;
        Datagram d;
        EXPECT_TRUE(kes_test::ParseDatagram(datagram, &d)) << datagram.size() << " bytes";
        EXPECT_EQ(d.length, d.text.size());
        got.push_back(d);
    }
    return got;
}

TEST(DaemonEndToEnd, PublishesReadingsAndFailuresOnTheDatagramPort)
{
    kes_test::TestGateway gateway;
    ASSERT_TRUE(gateway.Start());
    // String mid 3: 230.5 V, 1.5 A. String mid 4 is silent. Pulse counters mid 5
    // (count 123456, period 7) and mid 6 (period 0).
    gateway.SetRegisters(2, 300, {2305, 150});
    gateway.SetRegisters(5, 500, {0x0001, 0xE240, 7});
    gateway.SetRegisters(5, 600, {0x0000, 0x0010, 0});

    kes_test::DatagramReceiver receiver(16549);
    ASSERT_EQ(receiver.Port(), 16549) << "the datagram port is taken";
    kes_test::TempDir dir;
    kes_test::WriteFile(
        dir.File("conf.xml"),
        "<energy><line id=\"2\" adr=\"" + gateway.GetAddress() +
            "\">"
            "<v type=\"2\" mid=\"3\" iid=\"1201\" fid=\"0\"/><v type=\"2\" mid=\"3\" iid=\"1202\" fid=\"1\"/>"
            "<v type=\"2\" mid=\"3\" iid=\"1203\" fid=\"2\"/>"
            "<v type=\"2\" mid=\"4\" iid=\"1301\" fid=\"0\"/><v type=\"2\" mid=\"4\" iid=\"1302\" fid=\"1\"/>"
            "<v type=\"5\" mid=\"5\" iid=\"1401\" fid=\"0\"/><v type=\"5\" mid=\"5\" iid=\"1402\" fid=\"1\"/>"
            "<v type=\"5\" mid=\"6\" iid=\"1501\" fid=\"0\"/>"
            "</line></energy>");
    kes_test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start({kes_test::BinPath("kes_energy"), "-conf", dir.File("conf.xml"), "-dir", dir.Path()}));

    // One cycle costs the silent device two attempts of 600 ms: 4 s holds two cycles.
    std::vector<Datagram> got = receive_for(receiver, 4000);
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.Wait(3000), 0) << daemon.Output();

    std::map<unsigned int, std::vector<std::string>> texts;
    for (const Datagram& d : got)
        texts[d.iid].push_back(d.text);
    ASSERT_FALSE(texts[1201].empty()) << daemon.Output();
    EXPECT_EQ(texts[1201][0], "230.5");
    EXPECT_EQ(texts[1202][0], "1.5");
    EXPECT_EQ(texts[1203][0], "345.8");
    ASSERT_FALSE(texts[1301].empty());
    EXPECT_EQ(texts[1301][0], "f");
    EXPECT_EQ(texts[1302][0], "f");
    ASSERT_FALSE(texts[1401].empty());
    EXPECT_EQ(texts[1401][0], "514.3");
    EXPECT_EQ(texts[1402][0], "123.5");
    EXPECT_EQ(texts[1501][0], "0");
    // The order of the file within a device, and of the lists within a cycle.
    ASSERT_GE(got.size(), 8u);
    std::vector<unsigned int> first;
    for (size_t i = 0; i < 8; ++i)
        first.push_back(got[i].iid);
    EXPECT_EQ(first, (std::vector<unsigned int>{1201, 1202, 1203, 1301, 1302, 1401, 1402, 1501}));
    EXPECT_NE(daemon.Output().find("[Communication Error]"), std::string::npos);
}

TEST(DaemonEndToEnd, ExactBytesOfOneDatagram)
{
    kes_test::TestGateway gateway;
    ASSERT_TRUE(gateway.Start());
    gateway.SetRegisters(2, 300, {2305, 150});
    kes_test::DatagramReceiver receiver(16549);
    ASSERT_EQ(receiver.Port(), 16549);
    kes_test::TempDir dir;
    kes_test::WriteFile(dir.File("conf.xml"),
                        "<energy><line id=\"2\" adr=\"" + gateway.GetAddress() +
                            "\"><v type=\"2\" mid=\"3\" iid=\"1201\" fid=\"0\"/></line></energy>");
    kes_test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start({kes_test::BinPath("kes_energy"), "-conf", dir.File("conf.xml"), "-dir", dir.Path()}));
    std::string datagram;
    bool got = receiver.Receive(&datagram, 3000);
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.Wait(3000), 0);
    ASSERT_TRUE(got);
    EXPECT_EQ(datagram, std::string("\xB1\x04\x00\x00\x05"
                                    "230.5",
                                    10));
}

TEST(DaemonEndToEnd, LineThatCanNotConnectIsReportedAndTheDaemonRunsOn)
{
    kes_test::TempDir dir;
    kes_test::WriteFile(dir.File("conf.xml"), "<energy><line id=\"7\" adr=\"127.0.0.1\">"
                                              "<v type=\"2\" mid=\"3\" iid=\"1\" fid=\"0\"/></line></energy>");
    kes_test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start({kes_test::BinPath("kes_energy"), "-conf", dir.File("conf.xml"), "-dir", dir.Path()}));
    EXPECT_TRUE(daemon.WaitForOutput("Can not start line 7", 3000)) << daemon.Output();
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.Wait(3000), 0) << daemon.Output();
}

TEST(DaemonEndToEnd, BadConfigurationEndsWithStatusTwo)
{
    kes_test::TempDir dir;
    kes_test::WriteFile(dir.File("conf.xml"), "<ENERGY/>");
    kes_test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start({kes_test::BinPath("kes_energy"), "-conf", dir.File("conf.xml"), "-dir", dir.Path()}));
    EXPECT_EQ(daemon.Wait(3000), 2);
    const std::string& out = daemon.Output();
    size_t a = out.find("Main energy node not found in file:");
    size_t b = out.find("Configuration failed");
    size_t c = out.find("Energy Execute");
    EXPECT_TRUE(a != std::string::npos && b != std::string::npos && c != std::string::npos && a < b && b < c) << out;
}

// Items of the file that got no value from the daemon in 4 s.
std::set<unsigned int> items_without_value(const std::string& i_conf, const std::string& i_dir)
{
    std::set<unsigned int> items;
    const std::string text = kes_test::ReadFile(i_conf);
    for (size_t at = text.find("iid=\""); at != std::string::npos; at = text.find("iid=\"", at + 1))
        items.insert(static_cast<unsigned int>(strtoul(text.c_str() + at + 5, nullptr, 10)));
    EXPECT_EQ(items.size(), 49u); // 2 + 3 + 4 + 0 + 2 + 5 + 9 + 4 + 10 + 3 + 7 values
    kes_test::DatagramReceiver receiver(16549);
    EXPECT_EQ(receiver.Port(), 16549) << "the datagram port is taken";
    kes_test::ChildProcess daemon;
    EXPECT_TRUE(daemon.Start({kes_test::BinPath("kes_energy"), "-conf", i_conf, "-dir", i_dir}));
    for (const Datagram& d : receive_for(receiver, 4000))
        if (d.text != "f")
            items.erase(d.iid);
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.Wait(3000), 0) << daemon.Output();
    return items;
}

// A plant of every type, three devices on the factory number 9, behind a
// serial adapter with a stable name: kes_bus numbers it and writes the file,
// on which the daemon reads every value, from that plant and from the
// simulator started on the file.
TEST(DaemonEndToEnd, ReadsEveryValueOfTheFileKesBusWrote)
{
    kes_test::TempDir dir;
    mkdir(dir.File("dev").c_str(), 0755);
    const std::string adapter = dir.File("dev/ttyUSB-plant-north"), conf = dir.File("conf.xml");
    std::string plant = "<energy><line id=\"1\" adr=\"" + adapter + "\">";
    const unsigned int mids[12] = {0, 9, 9, 9, 4, 5, 6, 7, 8, 10, 11, 12}; // by type
    for (unsigned int type = 1; type <= 11; ++type)
        plant += "<v type=\"" + std::to_string(type) + "\" mid=\"" + std::to_string(mids[type]) + "\" iid=\"1\"/>";
    kes_test::WriteFile(dir.File("plant.xml"), plant + "</line></energy>");
    kes_test::ChildProcess sims[2], bus;
    ASSERT_TRUE(sims[0].Start({kes_test::BinPath("kes_bus_sim"), "-conf", dir.File("plant.xml")}));
    ASSERT_TRUE(sims[0].WaitForOutput("ready", 5000)) << sims[0].Output();
    ASSERT_TRUE(bus.Start({kes_test::BinPath("kes_bus"), "-adr", adapter, "-timeout", "50", "-answer", "5", "-failure",
                           "30", "-attempts", "1", "number", "1", "-conf", conf}));
    ASSERT_EQ(bus.Wait(90000), 0) << bus.Output();
    EXPECT_NE(kes_test::ReadFile(conf).find("<!-- [Ambient] serial 10104004 module 1: never read, no value -->"),
              std::string::npos);
    EXPECT_EQ(items_without_value(conf, dir.Path()), std::set<unsigned int>());
    sims[0].Signal(SIGTERM);
    EXPECT_EQ(sims[0].Wait(5000), 0);
    ASSERT_TRUE(sims[1].Start({kes_test::BinPath("kes_bus_sim"), "-conf", conf}));
    ASSERT_TRUE(sims[1].WaitForOutput("ready", 5000)) << sims[1].Output();
    EXPECT_EQ(items_without_value(conf, dir.Path()), std::set<unsigned int>());
}

} // namespace
