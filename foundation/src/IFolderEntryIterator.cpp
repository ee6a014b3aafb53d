#include <foundation/storage/provider/IFolderEntryIterator.hpp>

namespace foundation::storage::provider
{

IFolderEntryIterator::~IFolderEntryIterator() = default;

} // namespace foundation::storage::provider
