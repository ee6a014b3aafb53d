#pragma once

#include <foundation/core/except/IException.hpp>
#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <memory>

namespace foundation::storage::provider
{

/// The exception that a provider's operations throw: why the operation failed, and for which IRI.
///
/// Copies share their contents, so copying never throws.
class FOUNDATION_EXPORT Exception : public core::except::IException
{
public:
    Exception(ErrorCode errorCode, StorageIRI iri);
    ~Exception() override;

    /// Get the reason. The references that this and iri() return are valid as long as any copy of the exception lives.
    const ErrorCode& errorCode() const noexcept;
    const StorageIRI& iri() const noexcept;

    /// Get one readable line: the code's name, the IRI and the detail, for example
    /// "NotFound: cloud://store/a/b.txt: no such bucket". Never contains a line break.
    const char* what() const noexcept override;

private:
    struct FOUNDATION_HIDDEN Contents;

    std::shared_ptr<const Contents> m_contents; // never null
};

} // namespace foundation::storage::provider
