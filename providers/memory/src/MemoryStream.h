#pragma once

#include <memory>

#include "MemoryNodes.h"
#include "storage/provider/ByteStream.h"

namespace foundation::storage::provider::memory::detail {

// A stream on one file node. It keeps the node (and the clock) alive, so it works on after
// the file is removed from the store. Its position is its own; the content is shared with
// every other stream on the node under the node's mutex.
class MemoryStream final : public ByteStream {
public:
    MemoryStream(std::shared_ptr<FileNode> file, std::shared_ptr<ModificationClock> clock, bool canRead,
                 bool canWrite, bool append);
    ~MemoryStream() override;

protected:
    long doRead(char* buffer, long count) override;
    long doWrite(const char* buffer, long count) override;
    std::streampos doSeek(long offset, std::ios_base::seekdir origin) override;
    void doClose() override;

private:
    void checkOpen() const;

    std::shared_ptr<FileNode> file_;
    std::shared_ptr<ModificationClock> clock_;
    long position_ = 0;
    bool canRead_;
    bool canWrite_;
    bool append_;
    bool closed_ = false;
};

}  // namespace foundation::storage::provider::memory::detail
