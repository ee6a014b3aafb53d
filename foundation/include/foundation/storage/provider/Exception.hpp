#pragma once

#include <foundation/core/except/IException.hpp>
#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <memory>

namespace foundation::storage::provider
{

/// The one exception that leaves a provider's operations: why it failed, and on which IRI.
///
/// Copies share their contents, so copying never throws.
class FOUNDATION_EXPORT Exception : public core::except::IException
{
public:
    Exception(ErrorCode errorCode, StorageIRI iri);
    ~Exception() override;

    /// Valid as long as any copy of the exception lives, as is iri().
    const ErrorCode& errorCode() const noexcept;
    const StorageIRI& iri() const noexcept;

    /// Give one readable line: the code's name, the IRI and the detail, for example
    /// "NotFound: cloud://store/a/b.txt: no such bucket". Never holds a line break.
    const char* what() const noexcept override;

private:
    struct Contents;

    std::shared_ptr<const Contents> m_contents; // never null
};

} // namespace foundation::storage::provider
