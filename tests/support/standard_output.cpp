#include "standard_output.h"

#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

#include "run_folder.h"

#if defined(_WIN32)
#include <io.h>
#else
#include <unistd.h>
#endif

namespace support {
namespace {

constexpr int standardOutput = 1;

void flushAll() {
    std::cout.flush();
    std::fflush(nullptr);
}

int openForWriting(const std::filesystem::path& file) {
#if defined(_WIN32)
    return _wopen(file.c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC | _O_BINARY, 0600);
#else
    return open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
#endif
}

}  // namespace

StandardOutput::StandardOutput() : file_(runFolder() / "standard output") {
    flushAll();
    saved_ = dup(standardOutput);
    const int file = openForWriting(file_);
    if (saved_ < 0 || file < 0 || dup2(file, standardOutput) < 0) {
        throw std::runtime_error("standard output can't be caught");
    }
    close(file);
}

StandardOutput::~StandardOutput() {
    flushAll();
    dup2(saved_, standardOutput);
    close(saved_);
}

std::string StandardOutput::text() const {
    flushAll();
    std::ifstream stream(file_, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace support
