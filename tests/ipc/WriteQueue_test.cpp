#include "ipc/WriteQueue.h"

#include <gmock/gmock.h>

#include <deque>
#include <random>

#include "ipc/PayloadPool.h"
#include "ipc/PipeFrame.h"
#include "support/Crew.h"
#include "support/Eventually.h"

namespace guardian {
namespace {

using std::chrono::seconds;

std::string PayloadOf(const TPipeWrite& write) {
  return write.Buffer->substr(12, write.Buffer->size() - kFrameOverhead);
}

// Random operations on the queue and on a deque, which is the queue's model.
TEST(TWriteQueueTest, IsAQueueOfFramesThatLosesItsOldestAtALimit) {
  std::mt19937 random(20261121);
  TWriteQueue queue;
  std::deque<std::string> model;
  for (int step = 0; step < 20'000; ++step) {
    SCOPED_TRACE(step);
    switch (random() % 8) {
      case 0: {
        const std::size_t limit = random() % 40;
        queue.Limit(limit);
        if (model.size() > limit) model.erase(model.begin(), model.end() - static_cast<int>(limit));
        break;
      }
      case 1:
      case 2:
      case 3: {
        std::optional<TPipeWrite> write = queue.Dequeue();
        ASSERT_EQ(write.has_value(), !model.empty());
        if (!write) break;
        ASSERT_EQ(PayloadOf(*write), model.front());
        model.pop_front();
        queue.Recycle(std::move(*write));
        break;
      }
      default:
        model.emplace_back(random() % 100, static_cast<char>(random()));
        queue.Append(model.back());
    }
    ASSERT_EQ(queue.Count(), model.size());
  }
}

TEST(TBufferPoolTest, KeepsBuffersUpToItsLimits) {
  constexpr std::size_t kNewCapacity = std::string().capacity();
  TBufferPool pool;
  for (const std::size_t bytes : {65'536U, 65'537U}) {
    auto buffer = std::make_unique<std::string>(bytes, 'x');
    ASSERT_EQ(buffer->capacity(), bytes);
    pool.Give(std::move(buffer));
    const auto next = pool.Take();
    EXPECT_EQ(next->capacity(), bytes == 65'536 ? bytes : kNewCapacity);
    EXPECT_TRUE(next->empty());
  }
  for (int i = 0; i < 65; ++i) pool.Give(std::make_unique<std::string>(100, 'x'));
  for (int i = 0; i < 64; ++i) EXPECT_GE(pool.Take()->capacity(), 100U) << i;
  EXPECT_EQ(pool.Take()->capacity(), kNewCapacity);
}

TEST(TPayloadPoolTest, IsFullAboveSixteenMebibytesWithTheCostOfEachMessage) {
  const auto pool = std::make_shared<TPayloadPool>();
  std::vector<TMessagePayload> payloads;
  for (int i = 0; i < 65'535; ++i) payloads.push_back(MakePayload(pool, ""));
  EXPECT_FALSE(pool->IsFull());
  TMessagePayload last = MakePayload(pool, "x");
  EXPECT_TRUE(pool->IsFull());
  EXPECT_EQ(*last, "x");

  // A wait that the room ends, and one that Wake ends.
  const TCrew reader(1, [&](int) {
    while (pool->IsFull()) pool->WaitForRoom(seconds(60));
    pool->WaitForRoom(seconds(60));
  });
  last.reset();
  EXPECT_FALSE(pool->IsFull());
  last = MakePayload(pool, "");
  EXPECT_FALSE(pool->IsFull()) << "16 MiB exactly";
  EXPECT_TRUE(Eventually([&] {
    pool->Wake();
    return reader.Finished();
  }));
}

}  // namespace
}  // namespace guardian
