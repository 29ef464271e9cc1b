// Files that the tool and the stand-ins read: regular files only, read whole up to a bound, every
// error returned as a message. A FIFO, a device or a directory is refused at once, before any
// read could block or run without end.
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <string>

namespace diag_wire {

// Reads the regular file |path| whole into |*text|. False with "cannot read PATH: why" in |*error|
// when it cannot be opened or read, is no regular file, or holds more than |limit| bytes.
bool read_regular(const std::string& path, size_t limit, std::string* text, std::string* error);

// What a file that is no regular one is, for messages: "a directory", "a FIFO", ...
const char* special_file_kind(mode_t mode);

// "12 KiB", "64 MiB": a byte count as the messages above give it.
std::string size_text(size_t bytes);

}  // namespace diag_wire
