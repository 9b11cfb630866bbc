#pragma once

#include <memory>

#include "storage/provider/detail/StorageIRIImpl.h"

namespace foundation::storage::provider::detail {

// makeImpl(iri) with the object and its reference count in one allocation: what StorageIRI
// uses, since constructing from text is on hot paths.
std::shared_ptr<StorageIRIImpl> makeSharedImpl(foundation::network::IRI iri);

}  // namespace foundation::storage::provider::detail
