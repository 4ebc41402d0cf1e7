// Content codings of HTTP bodies (zlib) and the texts that replace blocked content.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qbrix::contentproc {

enum class Coding { Identity, Gzip, Deflate, Unknown };

// The coding named by a Content-Encoding field ("gzip", "x-gzip", "deflate", "identity" or
// empty); several codings, or any other, are Unknown: such a body passes unchanged.
Coding CodingOf(std::string_view contentEncoding);

enum class DecodeResult { Ok, TooLarge, Corrupt };

// Decodes a whole body. The decoded size is bounded by `limit` (a small body that would inflate
// beyond it, as a compression bomb does, is TooLarge and passes unchanged). "deflate" is read as
// the zlib format and, when that fails, as a raw deflate stream, as servers send both.
DecodeResult Decode(Coding coding, std::string_view body, std::size_t limit, std::string& out);

// The page sent instead of a download in which a virus was found.
std::string BlockedPage(const std::string& address, const std::string& virus,
                        const std::string& quarantine);
// The mail sent instead of a message in which a virus was found: the original's From, To, Date
// and Subject lines and a short explanation.
std::string BlockedMail(std::string_view original, const std::string& virus,
                        const std::string& quarantine);

}  // namespace qbrix::contentproc
