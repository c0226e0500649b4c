#include "ipc/MessageList.h"

#include <gmock/gmock.h>

#include <deque>
#include <random>

namespace guardian {
namespace {

using TNumbers = std::deque<std::int64_t>;
constexpr std::int64_t kSpare = -1;

std::unique_ptr<TMessageWrapper> Wrapper(std::int64_t number) {
  auto wrapper = std::make_unique<TMessageWrapper>();
  wrapper->Message.WParam = number;
  return wrapper;
}

TMessageChain Chain(const TNumbers& numbers) {
  TMessageChain chain;
  for (const std::int64_t number : numbers) chain.Append(Wrapper(number));
  return chain;
}

TNumbers Drain(TMessageChain chain) {
  TNumbers numbers;
  const std::size_t count = chain.Count();
  while (const auto wrapper = chain.TakeFirst()) numbers.push_back(wrapper->Message.WParam);
  EXPECT_EQ(numbers.size(), count);
  return numbers;
}

// Takes the odd ones out of a text-book queue.
TNumbers TakeOdd(TNumbers& numbers) {
  TNumbers odd;
  std::copy_if(numbers.begin(), numbers.end(), std::back_inserter(odd),
               [](auto n) { return n & 1; });
  std::erase_if(numbers, [](auto n) { return n & 1; });
  return odd;
}

bool IsOdd(const TMessageWrapper& wrapper) { return (wrapper.Message.WParam & 1) != 0; }

// Random operations on the list and on a deque, which is the list's model, and a count of spares.
TEST(TMessageListTest, IsAQueueWhileItIsOpen) {
  using TAppended = TMessageList::TAppended;
  std::mt19937 random(20261121);
  TMessageList list;
  TNumbers model;
  bool open = false;
  std::size_t spares = 0;
  for (std::int64_t step = 0; step < 20'000; ++step) {
    SCOPED_TRACE(step);
    switch (random() % 24) {
      case 0:
        list.Open();
        open = true;
        break;
      case 1: {
        TNumbers held = Drain(list.Close());
        EXPECT_EQ(std::erase(held, kSpare), std::exchange(spares, 0));
        EXPECT_EQ(held, std::exchange(model, {}));
        open = false;
        break;
      }
      case 2: {
        const std::size_t given =
            std::array{0U, 1U, 511U, 512U, 513U, 1024U, 1025U}.at(random() % 7);
        EXPECT_EQ(Drain(list.TakeAll(Chain(TNumbers(given, kSpare)))), std::exchange(model, {}));
        if (open && spares + given <= 1024) spares += given;
        break;
      }
      case 3:
        EXPECT_EQ(Drain(list.TakeIf(IsOdd)), TakeOdd(model));
        break;
      case 4:
        list.PutBack(Chain({step, step + 1}));
        if (open) model.insert(model.begin(), {step, step + 1});
        break;
      default: {
        auto wrapper = Wrapper(step);
        const TAppended expected = !open           ? TAppended::Refused
                                   : model.empty() ? TAppended::AsFirst
                                                   : TAppended::AsFurther;
        ASSERT_EQ(list.Append(wrapper), expected);
        // Refused, the wrapper stays; taken, a spare one comes back.
        ASSERT_EQ(wrapper != nullptr, !open || spares > 0);
        if (!open) break;
        model.push_back(step);
        spares -= spares > 0 ? 1 : 0;
      }
    }
    ASSERT_EQ(list.Empty(), model.empty());
    ASSERT_FALSE(HasFailure());
  }
}

}  // namespace
}  // namespace guardian
