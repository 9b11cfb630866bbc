#pragma once

// The behaviour every provider shares. A provider joins in with one line of its own test
// program:
//
//     INSTANTIATE_TEST_SUITE_P(Memory, ProviderConformance, testing::Values(memoryProviderCase()));
//
// Tests named Read* need only reading; those named Write* change the store. A read-only
// provider runs both halves: with `writable` off, WriteRefusedWhenReadOnly asserts the
// refusals and the Write* tests that change the store are skipped. Where another capability
// is off, the tests assert the documented error instead of skipping. Where providers may
// legitimately differ, the tests assert what must hold anyway (no data lost).

#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <map>

#include <gtest/gtest.h>

#include "storage/provider/IProvider.h"
#include "storage/provider/StorageItem.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::conformance {

using testsupport::entrySet;
using testsupport::errorOf;
using testsupport::expectError;

// What a provider can do beyond the primitives. Each comment says what the suite expects
// when the capability is off.
struct Capabilities {
    bool writable = true;           // off: every change throws ReadOnlyProvider
    bool polling = true;            // off: startChangePollingMechanism throws ChangeEventsNotSupportedException
    bool publishing = false;        // off: publishFolderEventsFor throws ChangeEventsNotSupportedException
    bool recursiveListing = false;  // off: listAllRecursive throws UnsupportedOperation
    bool recursiveRemoval = false;  // off: removeFolderRecursively throws UnsupportedOperation
    bool wildcardFiltering = false; // off: wildcard listings may hold entries that do not match
    bool setWritable = false;       // off: setWritable throws UnsupportedOperation
    bool setLastModified = false;   // off: setLastModified throws UnsupportedOperation
    bool storageInfo = false;       // off: getProviderStorageInfo throws UnsupportedOperation
    bool wholeSecondTimes = false;  // on: times have whole seconds, so a folder's change may be polled late
    bool gappedReplace = false;     // on: replacing a file removes it first, so a poll may see it go and return
};

// A provider, and an existing, empty folder in it where a test may work.
struct ProviderUnderTest {
    std::shared_ptr<IProvider> provider;
    StorageIRI root;
};

// What a folder holds: paths relative to it ("sub/b.txt") with their content; a path ending
// in '/' is a folder. Parents are listed before their children.
using Tree = std::map<std::string, std::string>;

struct ProviderCase {
    std::string name;
    Capabilities capabilities;
    std::function<ProviderUnderTest()> makeEmptyProvider;
    // For providers that cannot be written through their own interface: a provider whose
    // root already holds `tree`. When empty, the suite writes the tree through the provider.
    std::function<ProviderUnderTest(const Tree&)> makePopulatedProvider;
    // For stores where one file can have several names: makes `alias` a hard link (or, with
    // `symbolic`, a symbolic link) to `file`. Empty: the suite has no links to try.
    std::function<void(const StorageIRI& file, const StorageIRI& alias, bool symbolic)> makeLink;
    // Another provider object over the store of `subject`; empty when there can be none.
    std::function<std::shared_ptr<IProvider>(const ProviderUnderTest& subject)> makeSameStoreProvider;
};

void PrintTo(const ProviderCase& providerCase, std::ostream* out);

// One row of a table of calls that must fail: the code, the location the error names
// (relative to the working folder; none: any location), and the call.
struct Refusal {
    ErrorCode code;
    std::optional<std::string> location;
    std::function<void()> call;
};

class ProviderConformance : public ::testing::TestWithParam<ProviderCase> {
protected:
    // Every test starts with a working folder that holds standardTree().
    void SetUp() override;
    static const Tree& standardTree();

    const Capabilities& can() const { return GetParam().capabilities; }
    const IProvider& provider() const { return *subject_->provider; }
    // The location `relative` to the working folder (empty: the folder itself).
    StorageIRI at(const std::string& relative) const;
    // The same as an item of the provider under test.
    StorageItem item(const std::string& relative) const { return StorageItem(subject_->provider, at(relative)); }
    const ProviderUnderTest& subject() const { return *subject_; }

    // Reads a whole file through openReadOnlyStream.
    std::string read(const std::string& relative) const { return testsupport::readAll(provider(), at(relative)); }
    // Creates or replaces a file through openStream and closes the stream.
    void write(const std::string& relative, const std::string& content) const;
    // Everything below the working folder, as a Tree, walked with listAll and read.
    Tree snapshot() const;
    // Runs every row; each must throw as it says.
    void expectRefusals(const std::vector<Refusal>& rows) const;

private:
    std::optional<ProviderUnderTest> subject_;
};

}  // namespace foundation::storage::provider::conformance
