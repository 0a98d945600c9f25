// What the stand-in's supply of packet buffers promises beyond any engine's.
#include "standin/mbuf_pool.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <vector>

#include "gate.h"

namespace standin {
namespace {

TEST(MbufPool, WaitsForABufferAndRefusesGiants) {
    MbufPool pool(2);
    const std::vector<uint8_t> giant(MbufPool::kMaxFrame + 1);
    EXPECT_EQ(pool.Receive(giant, {}), nullptr);
    EXPECT_EQ(pool.InUse(), 0u);
    HostMbuf *longest = pool.Receive(std::span(giant).first(MbufPool::kMaxFrame), {});
    ASSERT_NE(longest, nullptr);
    EXPECT_EQ(longest->pktLen, MbufPool::kMaxFrame);
    HostMbuf *empty = pool.Receive({}, {});
    EXPECT_EQ(pool.InUse(), pool.Capacity());

    ExpectWaitsFor([&] { MbufPool::Release(longest); },
                   [&] { MbufPool::Release(pool.Receive({}, {})); });
    MbufPool::Release(empty);
    EXPECT_EQ(pool.InUse(), 0u);
}

}  // namespace
}  // namespace standin
