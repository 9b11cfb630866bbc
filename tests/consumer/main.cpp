// Exercises the exported interface from outside the library: building a location, and
// catching the library's exceptions by their own types (which only works when their type
// information is exported).
#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "storage/provider.h"

namespace sp = foundation::storage::provider;

int main() {
    const sp::StorageIRI file(u"file:///home/user/Ünïcode café/report.pdf");

    try {
        (void)file.getRoot().getParent();
        std::cerr << "the root has no parent, yet getParent() returned\n";
        return EXIT_FAILURE;
    } catch (const foundation::core::except::detail::AnonymousInternalException<std::logic_error>& e) {
        std::cout << "caught: " << e.what() << "\n";
    }

    try {
        throw sp::Exception(sp::ErrorCode::ResourceNotFound, file);
    } catch (const sp::Exception& e) {
        std::cout << "caught: " << e.ToUstringImpl() << "\n";
    }

    std::cout << "consumer OK: " << file << "\n";
    return EXIT_SUCCESS;
}
