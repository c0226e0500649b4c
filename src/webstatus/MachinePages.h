#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "webstatus/GuardianControl.h"

namespace guardian {

inline constexpr const char* kJsonType = "application/json";
inline constexpr const char* kMetricsTextType = "text/plain; version=0.0.4; charset=utf-8";
inline constexpr const char* kOpenMetricsType =
    "application/openmetrics-text; version=1.0.0; charset=utf-8";

// The state for programs. Without a status there is no service, and the text holds only what the
// process knows of itself. Pure functions.
// Threads: any.

// One JSON object. Text that is not UTF-8 is made so: each offending byte becomes U+FFFD.
[[nodiscard]] std::string StatusJson(const std::optional<TGuardianStatus>& status,
                                     std::optional<std::uint16_t> port);

// The same numbers for monitoring: in the text format that every such program reads, or in the
// later one, in which a family of samples has a name of its own.
enum class TMetricsFormat { Text, OpenMetrics };
[[nodiscard]] std::string Metrics(const std::optional<TGuardianStatus>& status,
                                  TMetricsFormat format);

}  // namespace guardian
