#pragma once

#include <utility>

#include <boost/property_tree/ptree.hpp>

#include "storage/provider/Export.h"
#include "storage/provider/IProvider.h"

namespace foundation::storage::provider {

// A provider that takes settings. The factories configure it right after building it and
// whenever the factory itself is configured; the meaning of the keys is the provider's own.
// Callers find it with a dynamic_cast from IProvider and skip providers that lack it.
class QKFL_STORAGE_EXPORT IConfigurableProvider : public IProvider {
public:
    ~IConfigurableProvider() override;

    // Hands a copy of `configuration` to doConfigure. Throws what doConfigure throws.
    void configure(boost::property_tree::ptree configuration) { doConfigure(std::move(configuration)); }

protected:
    // Appended after IProvider's virtual members.
    virtual void doConfigure(boost::property_tree::ptree configuration) = 0;
};

}  // namespace foundation::storage::provider
