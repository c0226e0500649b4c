#include "common/SharedText.h"

#include <gtest/gtest.h>

#include <atomic>

#include "support/Crew.h"

namespace guardian {
namespace {

// Run with the thread sanitizer, this is also the proof that no read races with the replacement.
TEST(TSharedTextTest, ShowsEveryReaderOneWholeTextForAsLongAsItIsKept) {
  TSharedText text("old");
  const TSharedText::TText kept = text.Get();
  text.Set("new");
  EXPECT_EQ(*kept, "old");
  EXPECT_EQ(text.Copy(), "new");
  text.Set("a");
  std::atomic<bool> done = false;
  TCrew readers(3, [&](int) {
    while (!done) {
      const TSharedText::TText seen = text.Get();
      EXPECT_EQ(*seen,
                std::string(static_cast<std::size_t>(seen->front() - 'a' + 1), seen->front()));
    }
  });
  for (int i = 0; i < 2000; ++i) {
    const int letter = i % 26;
    text.Set(std::string(static_cast<std::size_t>(letter + 1), static_cast<char>('a' + letter)));
  }
  done = true;
}

}  // namespace
}  // namespace guardian
