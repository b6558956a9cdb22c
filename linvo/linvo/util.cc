#include "linvo/util.h"

#include <ctime>
#include <iostream>

namespace linvo {

Logger::Logger(int level, const char* tag, const char* file, int line)
    : level_(level), tag_(tag), file_(file), line_(line) {}

Logger::~Logger() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char time_text[32];
  std::strftime(time_text, sizeof(time_text), "%Y-%m-%d %H:%M:%S", &local);
  // The source location is kept with the record for debugging but not printed.
  (void)file_;
  (void)line_;
  std::cout << "[" << time_text << "] [" << LevelStr(level_) << "] [" << tag_ << "] "
            << stream_.str() << std::endl;
}

const char* Logger::LevelStr(int level) {
  static const char* const kLetters[] = {"D", "I", "W", "E"};
  return level >= 0 && level <= 3 ? kLetters[level] : "UNKNOWN";
}

bool CheckOrLog(bool ok, const char* condition, const char* file, int line) {
  if (!ok) Logger(kLogError, "LINVO", file, line) << "Check '" << condition << "' fail!";
  return ok;
}

void ThrowUnsupportedType(DataType type) {
  std::ostringstream ss;
  ss << "Unsupport data type: " << static_cast<int32_t>(type);
  throw std::invalid_argument(ss.str());
}

}  // namespace linvo
