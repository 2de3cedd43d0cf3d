#pragma once
// Checks and quoting for input that may be hostile: files that are not files, and text that
// must not reach a message or a terminal as it is.
#include <cstddef>
#include <string>
#include <string_view>

namespace Merivane {

// Why `path` cannot be read as a file: "no such file", "is a directory", "is not a regular
// file" (a FIFO, a device), "cannot open (REASON)"; empty when it is a regular file.
std::string whyNotReadable(const std::string& path);

// Reads a whole regular file into `out`; false with `why` set as whyNotReadable() says, or to
// the read error. Never throws for a bad file.
bool readRegularFile(const std::string& path, std::string& out, std::string& why);

// At most `limit` characters of `text` for a message: printable ASCII as it is, everything
// else as \xNN, and "..." when cut. Messages quote untrusted bytes only through this.
std::string excerpt(std::string_view text, size_t limit = 40);

}  // namespace Merivane
