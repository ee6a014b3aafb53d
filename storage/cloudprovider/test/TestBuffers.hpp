#pragma once

#include <storage/cloudprovider/Buffer.hpp>

#include <exception>
#include <string>

namespace storage::cloudprovider
{

/// What the buffers of one test do wrong: the exceptions that their operations throw, if any.
struct BufferFaults
{
    std::exception_ptr onBuild;
    std::exception_ptr onOpen;
    std::exception_ptr onClose;

    static void raise(const std::exception_ptr& failure)
    {
        if (failure)
        {
            std::rethrow_exception(failure);
        }
    }
};

/// A buffer in memory that fails when told to.
class TestBuffer : public Buffer
{
public:
    TestBuffer(std::string bytes, const BufferFaults& faults)
        : m_bytes(std::move(bytes))
        , m_faults(faults)
    {
    }

    std::size_t size() const override { return m_bytes.size(); }
    void open() override
    {
        BufferFaults::raise(m_faults.onOpen);
        m_isOpen = true;
    }
    bool isOpen() const override { return m_isOpen; }
    const char* data() const override { return m_isOpen ? m_bytes.data() : nullptr; }
    char* data() override { return m_isOpen ? m_bytes.data() : nullptr; }
    void close() override
    {
        m_isOpen = false;
        BufferFaults::raise(m_faults.onClose);
    }

private:
    std::string m_bytes;
    bool m_isOpen = false;
    const BufferFaults& m_faults;
};

class TestBufferFactory : public BufferFactory
{
public:
    explicit TestBufferFactory(const BufferFaults& faults)
        : m_faults(faults)
    {
    }

    BufferPtr build(std::size_t size) override
    {
        BufferFaults::raise(m_faults.onBuild);
        return std::make_unique<TestBuffer>(std::string(size, '\0'), m_faults);
    }

private:
    const BufferFaults& m_faults;
};

} // namespace storage::cloudprovider
