#pragma once

namespace cloudfs
{

/// Lets the rest of the program run in a child process that outlives the shell, while the caller sees whether it has
/// begun well.
class Background
{
public:
    /// Fork, and return in the child only. The parent ends with status 0 as soon as the child calls ready(), or with
    /// the status of the child if that ends before. No thread may have been started yet.
    ///
    /// @throws std::system_error
    Background();

    Background(const Background&) = delete;
    Background& operator=(const Background&) = delete;

    /// Tell the parent that all is well, and let go of its terminal and its folder: relative paths change their
    /// meaning. Standard error stays open unless it is a terminal.
    void ready() const;

private:
    int m_parent = -1; // a pipe
};

} // namespace cloudfs
