#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "kes_osevent.h"
#include "kes_osfile.h"
#include "kes_osthread.h"
#include "kes_osutility.h"
#include "kes_time.h"
#include "kes_timer.h"
#include "test_process.h"

using namespace kes;

namespace {

long long ms_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

// Records when each tick begins; a tick may be made to last.
class RecordingTimer : public kesTimer {
public:
    ~RecordingTimer() override { Stop(); }
    void OnTimer() override
    {
        ticks.push_back(std::chrono::steady_clock::now());
        if (tickMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(tickMs));
    }
    void OnTimerStart() override { ++starts; }
    void OnTimerStop() override { ++stops; }
    std::vector<std::chrono::steady_clock::time_point> ticks;
    unsigned int tickMs = 0;
    std::atomic<int> starts{0}, stops{0};
};

// A clock whose readings jitter by 2 ms, so a check can land just before the expiry.
class JitterClockTimer : public RecordingTimer {
protected:
    unsigned int get_loop_time() override { return kesTime::GetTime() + ((++m_calls & 1) ? m_jitter : 0); }

public:
    unsigned int m_jitter = 2;
    std::atomic<unsigned int> m_calls{0};
};

} // namespace

TEST(KesOsEvent, SignalResetAndTimedWait)
{
    kesOsEvent event;
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(event.WaitSignal(20));
    EXPECT_GE(ms_since(start), 19);
    EXPECT_TRUE(event.Reset());
    EXPECT_TRUE(event.Signal());
    EXPECT_TRUE(event.WaitSignal(0xFFFFFFFF));
    EXPECT_TRUE(event.WaitSignal(0));
    EXPECT_TRUE(event.IsSignaled());
    event.Reset();
    EXPECT_FALSE(event.IsSignaled());

    std::thread waker([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        event.Signal();
    });
    EXPECT_TRUE(event.WaitSignal(0));
    waker.join();
}

TEST(KesOsThread, StartWaitsForTheThreadAndStopJoins)
{
    std::atomic<int> passes{0};
    kesOsThread quick([](kesOsThread*, void*) {}, nullptr, false);
    EXPECT_TRUE(quick.Start(0));
    EXPECT_TRUE(quick.IsStarted());
    quick.Stop();
    EXPECT_FALSE(quick.IsProcedureRunning());

    kesOsThread loop(
        [](kesOsThread* thread, void* argument) {
            while (thread->WaitContinue(5))
                ++*static_cast<std::atomic<int>*>(argument);
        },
        &passes, false);
    EXPECT_TRUE(loop.Start(262144));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    auto start = std::chrono::steady_clock::now();
    loop.Stop();
    EXPECT_LT(ms_since(start), 100);
    EXPECT_GT(passes.load(), 0);
    kesOsThread never(nullptr, nullptr, false);
    never.Stop();
}

TEST(KesOsMutex, RecursiveLockAndScopedHolder)
{
    kesOsMutex mutex;
    EXPECT_EQ(mutex.Lock(), kesErrorOk);
    EXPECT_EQ(mutex.Lock(), kesErrorOk);
    EXPECT_EQ(mutex.UnLock(), 0);
    EXPECT_EQ(mutex.UnLock(), 0);
    {
        kesSOsMutex hold(&mutex);
    }
    std::thread other([&] {
        EXPECT_EQ(mutex.Lock(), kesErrorOk);
        mutex.UnLock();
    });
    other.join();
}

TEST(KesTimer, CountEndsAfterExactlyThatManyTicks)
{
    RecordingTimer timer;
    timer.SetExpiredTime(5);
    timer.SetCount(3);
    ASSERT_EQ(timer.Start(0), kesErrorOk);
    for (int i = 0; i < 200 && timer.stops == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(timer.ticks.size(), 3u);
    EXPECT_EQ(timer.GetCounter(), 3u);
    EXPECT_EQ(timer.stops.load(), 1);
    timer.SetResolutionTime(0);
    EXPECT_EQ(timer.GetResolutionTime(), 1u);
}

TEST(KesTimer, LongTickDoesNotPileUp)
{
    RecordingTimer timer;
    timer.SetExpiredTime(20);
    timer.SetResolutionTime(20);
    timer.tickMs = 50;
    ASSERT_EQ(timer.Start(0), kesErrorOk);
    std::this_thread::sleep_for(std::chrono::milliseconds(230));
    timer.Stop();
    ASSERT_GE(timer.ticks.size(), 3u);
    // Each tick starts once the one before ended: no burst of catch-up ticks.
    for (size_t i = 1; i < timer.ticks.size(); ++i) {
        auto gap = std::chrono::duration_cast<std::chrono::milliseconds>(timer.ticks[i] - timer.ticks[i - 1]).count();
        EXPECT_GE(gap, 49);
    }
    EXPECT_LE(timer.ticks.size(), 5u);
    EXPECT_EQ(timer.stops.load(), 1);
}

TEST(KesTimer, PauseAsLongAsThePeriodLosesNoTick)
{
    // The history store waits a whole period between checks; a check landing a
    // millisecond early must not push the tick a whole period later.
    JitterClockTimer timer;
    timer.SetExpiredTime(40);
    timer.SetResolutionTime(40);
    ASSERT_EQ(timer.Start(0), kesErrorOk);
    std::this_thread::sleep_for(std::chrono::milliseconds(410));
    timer.Stop();
    EXPECT_GE(timer.ticks.size(), 9u);
    EXPECT_LE(timer.ticks.size(), 11u);
}

TEST(KesTimer, PeriodOfHalfTheClockOrMoreStillSleeps)
{
    // a pause figured in signed milliseconds turned negative and the loop spun at 1 ms
    JitterClockTimer timer;
    timer.m_jitter = 0;
    timer.SetExpiredTime(0x80000000u);
    timer.SetResolutionTime(0x80000000u);
    ASSERT_EQ(timer.Start(0), kesErrorOk);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    timer.Stop();
    EXPECT_TRUE(timer.ticks.empty());
    EXPECT_LT(timer.m_calls.load(), 20u);
}

TEST(KesTimer, RestartRunsStopAndStartHooks)
{
    RecordingTimer timer;
    timer.SetExpiredTime(1000);
    ASSERT_EQ(timer.Start(0), kesErrorOk);
    ASSERT_EQ(timer.Start(0), kesErrorOk);
    timer.Stop();
    EXPECT_EQ(timer.starts.load(), 2);
    EXPECT_EQ(timer.stops.load(), 2);
    EXPECT_TRUE(timer.ticks.empty());
}

TEST(KesOsFile, WholeFileReadsAndFailures)
{
    kes_test::TempDir dir;
    kesString text("filled");
    EXPECT_NE(kesOsFile::GetFileTextSource(dir.File("missing").c_str(), &text), kesErrorOk);
    EXPECT_TRUE(text.empty());
    EXPECT_NE(kesOsFile::GetFileTextSource("x", nullptr), kesErrorOk);

    kesOsFile file;
    EXPECT_EQ(file.Close(), kesErrorOk);
    EXPECT_GT(file.WriteText("%s", "nothing"), 0);
    ASSERT_EQ(file.Open(dir.File("f").c_str(), "w"), kesErrorOk);
    EXPECT_EQ(file.WriteText("%s%c%s", "a", 0, "b"), 3);
    ASSERT_EQ(file.Open(dir.File("empty").c_str(), "w"), kesErrorOk);
    EXPECT_EQ(file.Close(), kesErrorOk);
    EXPECT_EQ(file.Close(), kesErrorOk);

    EXPECT_EQ(kesOsFile::GetFileTextSource(dir.File("f").c_str(), &text), kesErrorOk);
    EXPECT_EQ(text, std::string("a\0b", 3));
    EXPECT_EQ(kesOsFile::GetFileTextSource(dir.File("empty").c_str(), &text), kesErrorOk);
    EXPECT_TRUE(text.empty());

    EXPECT_TRUE(kesOsUtility::FileExist(dir.File("f").c_str()));
    EXPECT_FALSE(kesOsUtility::FileExist(dir.File("missing").c_str()));
    EXPECT_TRUE(kesOsUtility::FolderExist(dir.File("f").c_str()));
    EXPECT_TRUE(kesOsUtility::FolderExist(dir.Path().c_str()));
    EXPECT_FALSE(kesOsUtility::FolderExist(dir.File("missing").c_str()));
}
