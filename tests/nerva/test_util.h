#pragma once

#include <gtest/gtest.h>

#include <string>

// Asserts that `statement` throws exactly `Exception` whose what() equals `message`.
#define EXPECT_THROW_MSG(statement, Exception, message)                          \
  do {                                                                           \
    try {                                                                        \
      statement;                                                                 \
      ADD_FAILURE() << "no exception from: " #statement;                         \
    } catch (const Exception& e) {                                               \
      EXPECT_EQ(std::string(e.what()), std::string(message)) << #statement;      \
    } catch (const std::exception& e) {                                          \
      ADD_FAILURE() << "wrong exception type from " #statement ": " << e.what(); \
    }                                                                            \
  } while (0)

// Asserts that `statement` throws exactly `Exception` whose what() contains every text of
// `parts` (an initializer list of strings).
#define EXPECT_THROW_HAS(statement, Exception, ...)                                  \
  do {                                                                               \
    try {                                                                            \
      statement;                                                                     \
      ADD_FAILURE() << "no exception from: " #statement;                             \
    } catch (const Exception& e) {                                                   \
      for (const std::string& part : std::initializer_list<std::string> __VA_ARGS__) \
        EXPECT_NE(std::string(e.what()).find(part), std::string::npos)               \
            << #statement << ": '" << e.what() << "' lacks '" << part << "'";        \
    } catch (const std::exception& e) {                                              \
      ADD_FAILURE() << "wrong exception type from " #statement ": " << e.what();     \
    }                                                                                \
  } while (0)

#include <unistd.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <fstream>

namespace nerva::test {

// Resident memory of this process in bytes (/proc/self/statm), or -1 when unreadable.
// Free heap pages go back to the system first, so that fragmentation left by
// earlier tests and the driver's threads does not read as growth.
inline long ResidentBytes() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
  std::ifstream statm("/proc/self/statm");
  long total_pages = 0, resident_pages = -1;
  statm >> total_pages >> resident_pages;
  return resident_pages < 0 ? -1 : resident_pages * sysconf(_SC_PAGESIZE);
}

// AddressSanitizer keeps freed memory in quarantine, so resident memory is no
// measure of leaks there; LeakSanitizer checks at exit instead.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif
#else
inline constexpr bool kAddressSanitizer = false;
#endif

}  // namespace nerva::test
