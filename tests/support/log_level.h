/// The configured log level of the module under test: the registry value on Windows, the file `logLevel` elsewhere.

#ifndef ZENTAK_TESTS_SUPPORT_LOG_LEVEL_H
#define ZENTAK_TESTS_SUPPORT_LOG_LEVEL_H

#include <string_view>

namespace support {

constexpr int errorLevel = 2;  ///< ERROR lines only
constexpr int debugLevel = 3;  ///< ERROR and DEBUG lines

/// A REG_DWORD; elsewhere a file of the number's low byte.
void setLogLevel(int level);

/// A REG_BINARY; elsewhere a file of these bytes.
void setLogLevelBytes(std::string_view bytes);

/// No value in the registry; elsewhere no file.
void removeLogLevel();

#if defined(_WIN32)
/// A registry value of any type (REG_SZ and the like).
void setLogLevelValue(unsigned long type, std::string_view bytes);
/// No registry key at all.
void removeLogLevelKey();
#endif

}  // namespace support

#endif
