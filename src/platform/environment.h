// Expansion of environment-variable references in text.
#ifndef VEKX_PLATFORM_ENVIRONMENT_H_
#define VEKX_PLATFORM_ENVIRONMENT_H_

#include <optional>
#include <string>
#include <string_view>

namespace qv::platform {

/// Replaces each `%NAME%` in `text` with the value of the environment variable NAME, as
/// ExpandEnvironmentStrings does: a reference to an unknown variable is left as written, and
/// scanning resumes at its closing `%`, which may open the next reference; a `%` with no
/// partner is kept. Values are not expanded again. `text` ends at its first zero character.
///
/// Names are case-insensitive on Windows and case-sensitive on POSIX, where values are read
/// as UTF-8. nullopt when the system call fails or memory runs out.
std::optional<std::u16string> ExpandEnvironment(std::u16string_view text) noexcept;

}  // namespace qv::platform

#endif  // VEKX_PLATFORM_ENVIRONMENT_H_
