#pragma once

// Every public name of libqkflstorageprovider, and the platform types its interface uses.

#include "fl/filesystem/path.h"
#include "fl/i18n/convert.h"
#include "fl/ustring.h"
#include "foundation/core/except/Exception.h"
#include "foundation/network/IRI.h"
#include "foundation/storage/utility/decodeURL.h"

#include "storage/provider/Attributes.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/ChangeEvents.h"
#include "storage/provider/ErrorCode.h"
#include "storage/provider/Exception.h"
#include "storage/provider/Export.h"
#include "storage/provider/FolderEntryIterator.h"
#include "storage/provider/GenericByteStreamDevice.h"
#include "storage/provider/IProvider.h"
#include "storage/provider/IReadOnlyProvider.h"
#include "storage/provider/Options.h"
#include "storage/provider/PathConversions.h"
#include "storage/provider/PathView.h"
#include "storage/provider/PollingChangeEventsDetector.h"
#include "storage/provider/SingleFolderChangePoller.h"
#include "storage/provider/StorageIRI.h"
#include "storage/provider/TransactionalStream.h"
#include "storage/provider/Version.h"
