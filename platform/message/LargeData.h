// Private to the message library: buffers for large message data.
//
// A fresh buffer is paid for with one page fault per 4 KiB page the first
// time it is touched, and on virtual machines a fault can cost tens of
// microseconds: filling a fresh 64 MiB buffer then takes far longer than
// copying the bytes. Buffers of LARGE_DATA_BYTES and more are therefore
// allocated first and advised to use transparent huge pages (2 MiB each)
// before they are filled, which cuts the faults by a factor of 512 where the
// kernel allows it ("madvise" mode). Elsewhere the advice is a no-op.
//
// Safe to call from any thread.
#ifndef COMMSCHANNEL_LARGE_DATA_H
#define COMMSCHANNEL_LARGE_DATA_H

#include <cstddef>
#include <string>

namespace largedata {

// From this size on, data buffers are advised to use huge pages.
const std::size_t LARGE_DATA_BYTES = std::size_t(4) << 20;

// Makes out empty with room for length bytes, advised as above when large.
void prepare(std::string& out, std::size_t length);

// out = the bytes [data, data + length), through prepare().
void assign(std::string& out, const char* data, std::size_t length);

}  // namespace largedata

#endif
