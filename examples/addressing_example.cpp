// Shows how locations are built and taken apart: a file on disk, a file inside a zip nested
// in another zip, and a child built from a folder and a name.
#include <iostream>

#include "storage/provider.h"

namespace sp = foundation::storage::provider;

static void describe(const sp::StorageIRI& location) {
    std::cout << location << "\n"
              << "  scheme  " << location.getScheme() << "\n"
              << "  path    " << location.getPath() << "\n"
              << "  name    " << location.getName() << "\n"
              << "  ascii   " << location.toAsciiString() << "\n";
    if (location.hasParent()) {
        std::cout << "  parent  " << location.getParent() << "\n";
    }
    if (location.hasInnerIRI()) {
        std::cout << "  inside  " << location.getInnerIRI() << "\n";
    }
}

int main() {
    const sp::StorageIRI report(u"file:///home/user/Documents/Ünïcode café/report-2026.pdf");
    const sp::StorageIRI nested(u"zip:zip:file:///home/user/a.zip!/inner/b.zip!/photos/beach.jpg");
    const sp::StorageIRI child(report.getParent(), u"notes.txt");

    for (const auto& location : {report, nested, child}) {
        describe(location);
    }
    std::cout << "report's folder is an ancestor of notes.txt: " << std::boolalpha
              << report.getParent().isAncestorOf(child) << "\n";
    return 0;
}
