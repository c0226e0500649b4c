#include "common/SharedText.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "common/Thread.h"

namespace guardian {
namespace {

// Run with the thread sanitizer, this is also the proof that no read races with the replacement.
TEST(TSharedTextTest, ShowsEveryReaderOneWholeText) {
  constexpr int kTexts = 2000;
  TSharedText text(std::string(1, 'a'));
  std::atomic<bool> done = false;
  const auto read = [&] {
    while (!done) {
      const TSharedText::TText seen = text.Get();
      EXPECT_EQ(seen->find_first_not_of(seen->front()), std::string::npos);
      EXPECT_EQ(seen->size(), static_cast<std::size_t>(seen->front() - 'a' + 1));
    }
  };
  std::vector<std::unique_ptr<TFunctionThread>> readers;
  for (int i = 0; i < 3; ++i) {
    readers.push_back(std::make_unique<TFunctionThread>("Reader", read));
    readers.back()->Start();
  }
  for (int i = 0; i < kTexts; ++i) {
    const int letter = i % 26;
    text.Set(std::string(static_cast<std::size_t>(letter + 1), static_cast<char>('a' + letter)));
  }
  done = true;
  readers.clear();
}

TEST(TSharedTextTest, KeepsATextThatIsStillRead) {
  TSharedText text("old");
  const TSharedText::TText kept = text.Get();
  text.Set("new");
  EXPECT_EQ(*kept, "old");
  EXPECT_EQ(text.Copy(), "new");
}

}  // namespace
}  // namespace guardian
