#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "common/Clock.h"
#include "webstatus/GuardianControl.h"
#include "webstatus/LogDownloads.h"

namespace guardian {

// The pages for a person at a phone or a screen: how it is, what happens next, the last day, and
// what can be done. HTML without scripts, forms or anything from elsewhere. Pure functions but for
// the age of the daemon's process, which the system knows.
// Threads: any.

enum class TRefresh { Itself, Never };

// Without a status there is no service any more.
[[nodiscard]] std::string OverviewPage(const std::optional<TGuardianStatus>& status,
                                       const TLogList& logs, TRefresh refresh, const TClock& clock);

// Asks once more before the control page of that name is opened, by the only link that leads to it;
// empty for a name that is none.
[[nodiscard]] std::string ConfirmPage(std::string_view controlPage);

// What a page of this kind answers to a deed: a sentence, and a link to the overview.
[[nodiscard]] std::string DonePage(std::string_view text);

}  // namespace guardian
