#include "Names.h"

namespace foundation::storage::provider::zip::detail {

std::vector<fl::ustring> pathElements(fl::ustring_view path) {
    std::vector<fl::ustring> elements;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = start;
        while (end < path.size() && path[end] != u'/' && path[end] != u'\\') ++end;
        const fl::ustring_view segment = path.substr(start, end - start);
        if (segment == u"..") {
            if (!elements.empty()) elements.pop_back();
        } else if (!segment.empty() && segment != u".") {
            fl::ustring& element = elements.emplace_back(segment);
            for (char16_t& c : element) {
                if (c == u'\0') c = u' ';
            }
        }
        start = end + 1;
    }
    return elements;
}

bool namesFolder(fl::ustring_view name) { return !name.empty() && (name.back() == u'/' || name.back() == u'\\'); }

}  // namespace foundation::storage::provider::zip::detail
