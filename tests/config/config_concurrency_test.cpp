/*
 * Parameter queries read the configuration from several client threads at
 * once. Run this suite under ThreadSanitizer as well.
 */
#include <gtest/gtest.h>
#include <marlo/config/config.h>

#include <atomic>
#include <thread>
#include <vector>

#include "config/board_configs_access.h"
#include "config/config_test_util.h"
#include "config/temp_sysroot.h"

using marlo_test::BoardXml;
using marlo_test::ConfigXml;
using marlo_test::TempSysroot;
using tessaro::marlo::GlobalCameraConfig;
using tessaro::marlo::detail::BoardConfigsAccess;

TEST(ConfigConcurrency, ParallelQueriesAllSeeTheMatchingBoard) {
    BoardConfigsAccess::Clear();
    TempSysroot sysroot;
    sysroot.writeDefaultConfig(
        ConfigXml(BoardXml("First", 1) + BoardXml("Client board", 2) + BoardXml("Last", 3)));
    sysroot.writeModel(std::string("Client board") + '\0');

    constexpr int kThreads = 6;
    constexpr int kQueries = 25;
    std::atomic<int> wrong{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            while (!go.load())
                std::this_thread::yield();
            for (int q = 0; q < kQueries; ++q) {
                auto board = GlobalCameraConfig::Creat();
                if (board.name != "Client board" || board.cameras.size() != 1 ||
                    board.cameras[0].id != 2)
                    wrong.fetch_add(1);
                /* Someone inspecting the list meanwhile. */
                auto boards = GlobalCameraConfig::boardConfigs();
                if (boards.size() % 3 != 0)
                    wrong.fetch_add(1);
            }
        });
    }
    go.store(true);
    for (auto& thread : threads)
        thread.join();

    EXPECT_EQ(wrong.load(), 0);
    auto boards = GlobalCameraConfig::boardConfigs();
    /* One load's boards come together, in file order, and only once. */
    ASSERT_EQ(boards.size(), 3u);
    EXPECT_EQ(boards[0].name, "First");
    EXPECT_EQ(boards[1].name, "Client board");
    EXPECT_EQ(boards[2].name, "Last");
    BoardConfigsAccess::Clear();
}

TEST(ConfigConcurrency, ParallelLoadsAndMatchesOfDifferentFiles) {
    BoardConfigsAccess::Clear();
    TempSysroot sysroot;
    sysroot.write("/a.xml", ConfigXml(BoardXml("A", 1)));
    sysroot.write("/b.xml", ConfigXml(BoardXml("B", 2)));
    std::string a = sysroot.path("/a.xml");
    std::string b = sysroot.path("/b.xml");

    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int q = 0; q < 30; ++q) {
                GlobalCameraConfig::loadFromConfig(t % 2 ? a.c_str() : b.c_str());
                auto board = GlobalCameraConfig::getMatchConfig(t % 2 ? "A!" : "B!");
                if (board.name != (t % 2 ? "A" : "B"))
                    wrong.fetch_add(1);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(GlobalCameraConfig::boardConfigs().size(), 2u);
    BoardConfigsAccess::Clear();
}
