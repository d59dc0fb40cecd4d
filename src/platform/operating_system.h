/// The few things that an operating system must provide. One implementation per system: windows.cpp and posix.cpp.

#ifndef ZENTAK_PLATFORM_OPERATING_SYSTEM_H
#define ZENTAK_PLATFORM_OPERATING_SYSTEM_H

#include <cstdio>
#include <optional>
#include <string>

namespace zentak::platform {

struct LocalTime {
    int year;  ///< with its century
    int month;
    int day;
    int hour;
    int minute;
    int second;
    int millisecond;
};

/// The wall clock in the process's time zone.
LocalTime localTime();

/// First byte of the configured log level as a signed number; 0 for a value without data. Nothing when there is no
/// such value, it can't be read, or it is longer than 32 bytes. Windows: registry value `logLevel`; elsewhere a file of
/// that name in the folder named by ZENTAK_CONFIG, by default "/etc/Dravenko Sentronics/Zentak".
std::optional<signed char> readLogLevelByte();

/// The user's temporary folder with its final separator; empty when the system names none or one of `limit` bytes or
/// more.
std::string temporaryFolder(std::size_t limit);

bool isDirectory(const char* path);

/// True when the directory was newly made, for its owner only; false also when it exists already.
bool createDirectory(const char* path);

/// File name of the process's main executable, without its folder, under which it was started, though another file may
/// be there by now; empty when it can't be told.
std::string executableName();

/// Opens a file for appending bytes as they are, made when missing, with sharing allowed to other processes of its
/// owner. Null when it can't be opened, or, where the temporary folder may be everybody's, when it is a link; the
/// caller closes it.
std::FILE* openForAppending(const char* path);

/// Value of an environment variable, nothing when it isn't set.
std::optional<std::string> environmentVariable(const char* name);

/// Whether anything, file or folder, has this path.
bool pathExists(const char* path);

/// Path of the process's main executable as the system tells it; empty when it can't be told.
std::string executablePath();

/// Keeps this library in the process from now on, so that its own thread never runs in unloaded code.
void keepModuleLoaded();

/// Where processes fork: `before` and `inParent` run around each fork from now on, `inChild` in the child.
void atFork(void (*before)(), void (*inParent)(), void (*inChild)());

}  // namespace zentak::platform

#endif
