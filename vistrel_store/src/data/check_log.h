// The log line of a failed check: the library checks a condition, and when it does not hold
// writes one level-2 line naming the condition and what is returned, then returns it.
#ifndef VISTREL_STORE_SRC_DATA_CHECK_LOG_H_
#define VISTREL_STORE_SRC_DATA_CHECK_LOG_H_

namespace norbel {
namespace vistrel {

// Source names in the device log.
inline constexpr char kServerApiSource[] = "vistrel_store/src/data/server_api";
inline constexpr char kStoreManagerSource[] = "vistrel_store/src/data/store_manager";
inline constexpr char kAuthSource[] = "vistrel_store/src/data/auth";

// Log levels of the device log.
inline constexpr int kLogError = 2;
inline constexpr int kLogTrace = 4;
inline constexpr int kLogProgress = 5;

// Writes `Condition: "<condition>", return("<returned>")]` at level 2. `function` is the
// operation's full signature as the log spells it.
void LogCheckFailed(const char* source, int line, const char* function, const char* condition,
                    const char* returned);

}  // namespace vistrel
}  // namespace norbel

#endif  // VISTREL_STORE_SRC_DATA_CHECK_LOG_H_
