#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

/// The offsets to read at, from a file with one per line, and the file that receives what was read.
class ReadOffsets
{
public:
    ReadOffsets(const std::string& list, std::string output)
        : m_output(std::move(output))
    {
        std::ifstream lines(list);
        for (std::uint64_t offset = 0; lines >> offset;)
        {
            m_offsets.push_back(offset);
        }
        if (m_offsets.empty() || !lines.eof())
        {
            throw std::runtime_error("not a list of offsets: " + list);
        }
    }

    /// Reads up to `wanted` bytes at `offset`. Returns how many; 0 at the end of the file, negative after an error.
    using Read = std::function<std::ptrdiff_t(std::uint64_t offset, char* data, std::size_t wanted)>;

    /// Read `size` bytes at each offset, in order.
    /// @throws std::runtime_error if the file ends too early or the output cannot be written
    void readEach(std::size_t size, const Read& read) const
    {
        std::ofstream output(m_output, std::ios::binary);
        std::vector<char> piece(size);
        for (const std::uint64_t offset : m_offsets)
        {
            for (std::size_t done = 0; done < size;)
            {
                const std::ptrdiff_t count = read(offset + done, piece.data() + done, size - done);
                if (count <= 0)
                {
                    throw std::runtime_error("nothing to read at " + std::to_string(offset + done));
                }
                done += static_cast<std::size_t>(count);
            }
            output.write(piece.data(), static_cast<std::streamsize>(size));
        }
        output.close();
        if (!output)
        {
            throw std::runtime_error("cannot write " + m_output);
        }
    }

private:
    std::vector<std::uint64_t> m_offsets;
    std::string m_output;
};
