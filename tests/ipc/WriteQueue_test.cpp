#include "ipc/WriteQueue.h"

#include <gtest/gtest.h>

#include <random>

#include "ipc/PayloadPool.h"
#include "ipc/PipeFrame.h"
#include "support/Crew.h"

namespace guardian {
namespace {

// Random operations on the queue and on a deque, which is the queue's model.
TEST(TWriteQueueTest, IsAQueueOfFramesThatLosesItsOldestAtALimit) {
  std::mt19937 random(20261121);
  TWriteQueue queue;
  std::deque<std::string> model;
  for (int step = 0; step < 20'000; ++step) {
    SCOPED_TRACE(step);
    const std::size_t what = random() % 60;
    if (what < 20) {
      const std::string payload(random() % 100, static_cast<char>(random()));
      queue.Append(payload);
      AppendFrame(model.emplace_back(), payload);
    } else if (what < 39) {
      auto write = queue.Dequeue();
      ASSERT_EQ(write.has_value(), !model.empty());
      if (!write) continue;
      ASSERT_EQ(*write->Buffer, model.front());
      queue.Recycle(std::move(*write));
      model.pop_front();
    } else if (what > 57) {
      const std::size_t limit = random() % 20;
      queue.Limit(limit);
      while (model.size() > limit) model.pop_front();
    }
    ASSERT_EQ(queue.Count(), model.size());
  }
}

TEST(TBufferPoolTest, KeepsBuffersUpToItsLimits) {
  TBufferPool pool;
  pool.Give(std::make_unique<std::string>(65'537, 'x'));
  EXPECT_LT(pool.Take()->capacity(), 100U);
  for (int i = 0; i < 65; ++i) pool.Give(std::make_unique<std::string>(65'536, 'x'));
  for (int i = 0; i < 64; ++i) {
    const auto buffer = pool.Take();
    EXPECT_TRUE(buffer->empty() && buffer->capacity() == 65'536) << i;
  }
  EXPECT_LT(pool.Take()->capacity(), 100U);
}

TEST(TPayloadPoolTest, IsFullAboveSixteenMebibytesWithTheCostOfEachMessage) {
  const auto pool = std::make_shared<TPayloadPool>();
  std::vector<TMessagePayload> payloads;
  for (int i = 0; i < 65'536; ++i) payloads.push_back(MakePayload(pool, ""));
  EXPECT_FALSE(pool->IsFull()) << "16 MiB exactly, at 256 bytes each";
  payloads.push_back(MakePayload(pool, ""));
  EXPECT_TRUE(pool->IsFull());
  const TCrew reader(1, [&](int) {
    while (pool->IsFull()) pool->WaitForRoom(std::chrono::hours(1));
  });
  payloads.pop_back();
}

}  // namespace
}  // namespace guardian
