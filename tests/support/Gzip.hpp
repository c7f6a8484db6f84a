// gzip in and out of memory for checking compressed bodies.
#pragma once

#include <zlib.h>

#include <string>

// The gzip stream of text.
inline std::string gzip(const std::string& text) {
        z_stream z = {};
        deflateInit2(&z, 9, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
        std::string out(deflateBound(&z, text.size()), '\0');
        z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
        z.avail_in = static_cast<uInt>(text.size());
        z.next_out = reinterpret_cast<Bytef*>(out.data());
        z.avail_out = static_cast<uInt>(out.size());
        deflate(&z, Z_FINISH);
        out.resize(z.total_out);
        deflateEnd(&z);
        return out;
}

// What a whole gzip stream inflates to, or "<inflate failed>".
inline std::string gunzip(const void* data, size_t size) {
        z_stream z = {};
        if (inflateInit2(&z, 31) != Z_OK)
                return "<inflate failed>";
        z.next_in = static_cast<Bytef*>(const_cast<void*>(data));
        z.avail_in = static_cast<uInt>(size);
        std::string out;
        char buf[16384];
        int status;
        do {
                z.next_out = reinterpret_cast<Bytef*>(buf);
                z.avail_out = sizeof buf;
                status = inflate(&z, Z_NO_FLUSH);
                out.append(buf, sizeof buf - z.avail_out);
        } while (status == Z_OK);
        inflateEnd(&z);
        return status == Z_STREAM_END ? out : "<inflate failed>";
}

inline std::string gunzip(const std::string& data) {
        return gunzip(data.data(), data.size());
}
