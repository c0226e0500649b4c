#pragma once

#include <gmock/gmock.h>

namespace guardian {

// The matchers that tests use by their bare names.
using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Matcher;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

}  // namespace guardian
