// Test support: a text compressed with zlib, as servers send "gzip" (windowBits 15 + 16),
// "deflate" (15) or raw deflate (-15). Header-only: only programs that link zlib include it.
#pragma once

#include <zlib.h>

#include <string>

namespace qbrix::test {

inline std::string Compress(const std::string& text, int windowBits) {
    z_stream stream{};
    deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&stream, text.size()) + 32, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

}  // namespace qbrix::test
