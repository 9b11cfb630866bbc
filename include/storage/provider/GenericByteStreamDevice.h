#pragma once

#include <ios>
#include <memory>

#include <boost/iostreams/categories.hpp>
#include <boost/shared_ptr.hpp>

#include "storage/provider/ByteStream.h"

namespace foundation::storage::provider {

// How a device closes its stream in the ordinary way. A stream type whose close needs an
// argument specialises this (a transactional stream commits).
template <class Stream>
struct ByteStreamDeviceCloser {
    static void close(Stream& stream) { stream.close(); }
};

// A Boost.Iostreams seekable device over a stream, so that a standard stream buffer can sit
// on top of it:
//
//     boost::iostreams::stream<GenericByteStreamDevice<ByteStream>> io(device);
//     std::iostream& s = io;
//
// Boost.Iostreams copies devices freely: all copies share one stream, which lives as long as
// the last copy. Like the stream itself, the copies are used by one thread at a time.
// Reads return -1 at the end of the stream; stream failures (ByteStreamFailure) pass through.
template <class Stream>
class GenericByteStreamDevice {
public:
    using char_type = char;
    struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag {};

    // Takes ownership; `stream` is left empty. Should allocating the shared count fail, the
    // stream is destroyed and the failure propagates.
    explicit GenericByteStreamDevice(std::unique_ptr<Stream>& stream) : stream_(stream.release()) {}

    long read(char* buffer, long count) const { return stream_->read(buffer, count); }
    long write(const char* buffer, long count) const { return stream_->write(buffer, count); }
    std::streampos seek(long offset, std::ios_base::seekdir origin) const { return stream_->seek(offset, origin); }
    void close() const { ByteStreamDeviceCloser<Stream>::close(*stream_); }

protected:
    Stream& stream() const { return *stream_; }

private:
    boost::shared_ptr<Stream> stream_;
};

}  // namespace foundation::storage::provider
