/*
 * Lent buffers stay imported into the software 2D engine as long as they
 * are lent, at any number of them: no frame maps a client buffer again.
 */
#include <linux/videodev2.h>

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "stream_events_util.h"
#include "support/process_stats.h"

using namespace camera_test;
using namespace stream_test;
using tessaro::marlo::V4l2Stream;

namespace {

using HoldTest = StreamEventsTest;

/* Mappings of client buffers, the tests' own and the engine's. */
size_t ClientMappings() {
    return marlo_test::MappingsOf("client-frame");
}

}  // namespace

TEST_F(HoldTest, MoreLentBuffersThanTheEnginesIdleLimitAreNeverMappedAgain) {
    constexpr int kClients = 3;
    constexpr int kSets = 60;  // 180 buffers: past the engine's 128 idle mappings
    size_t before = ClientMappings();
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<std::unique_ptr<V4l2Stream>> streams;
    std::vector<std::shared_ptr<MemFrame>> frames;
    for (int id = 0; id < kClients; ++id) {
        streams.push_back(std::make_unique<V4l2Stream>());
        clients.push_back(std::make_unique<Client>(streams.back().get()));
        ASSERT_EQ(Open(*streams.back(), id + 1), 0);
        for (int set = 0; set < kSets; ++set) {
            frames.push_back(Nv12(static_cast<uint64_t>(id * 100 + set)));
            FrameSet lent{frames.back()->buffer()};
            if (set == 0)
                ASSERT_EQ(streams.back()->ClientSetBufferInfo(lent), 0);
            else
                ASSERT_EQ(streams.back()->ClientReturnFrame(lent), 0);
        }
    }
    /* Each lent buffer is mapped by the test and held (mapped) by the engine. */
    const size_t lent = static_cast<size_t>(kClients * kSets);
    EXPECT_EQ(ClientMappings(), before + 2 * lent);

    for (int id = 0; id < kClients; ++id)
        ASSERT_EQ(streams[id]->ClientStartStream(clients[id]->callback()), 0);
    for (int64_t sequence = 0; sequence < kSets + 5; ++sequence) {
        ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(sequence, {1, 0}, 0x40), 3));
        for (auto& client : clients)
            ASSERT_TRUE(client->waitFor(static_cast<size_t>(sequence + 1)));
        /* Every job found its buffer's mapping: none was dropped or made again. */
        ASSERT_EQ(ClientMappings(), before + 2 * lent) << "frame " << sequence;
    }

    for (auto& stream : streams)
        stream->CloseCamera();
    /* The holds went with the stop; the engine lets the idle mappings go in time. */
    EXPECT_TRUE(WaitUntil([&] { return ClientMappings() <= before + lent; }));
}
