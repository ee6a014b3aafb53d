#include "ChildProcess.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace storage::clients::s3
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::size_t maxOutput = 64 << 10; // also the capacity of a pipe
constexpr int tick = 20;                    // milliseconds between two looks at the program and the interrupt

void require(int error, const char* what)
{
    if (error != 0)
    {
        throw std::system_error(error, std::generic_category(), what);
    }
}

/// A pipe that the program writes to. Programs that other threads start do not inherit it.
class Pipe
{
public:
    Pipe() { require(::pipe2(m_ends.data(), O_CLOEXEC) == 0 ? 0 : errno, "opening a pipe"); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe()
    {
        close(m_ends[0]);
        close(m_ends[1]);
    }

    pollfd input() const { return {m_ends[0], POLLIN, 0}; } // at the end, one that is ignored
    int writeEnd() const { return m_ends[1]; }
    void closeWriteEnd() { close(m_ends[1]); }

    /// Take what has been written, without waiting. One read empties a pipe.
    void drain()
    {
        std::array<char, maxOutput> piece{};
        pollfd end = input();
        if (::poll(&end, 1, 0) <= 0)
        {
            return;
        }
        const ssize_t count = ::read(m_ends[0], piece.data(), piece.size());
        if (count <= 0)
        {
            close(m_ends[0]);
            return;
        }
        // What does not fit is dropped, so that the program can end.
        m_text.append(piece.data(), std::min(static_cast<std::size_t>(count), maxOutput - m_text.size()));
    }

    std::string takeText() { return std::move(m_text); }

private:
    static void close(int& end)
    {
        if (end >= 0)
        {
            ::close(end);
        }
        end = -1;
    }

    std::array<int, 2> m_ends{-1, -1};
    std::string m_text;
};

/// Releases what posix_spawn() needs.
struct SpawnOptions
{
    SpawnOptions()
    {
        require(::posix_spawn_file_actions_init(&actions), "posix_spawn");
        require(::posix_spawnattr_init(&attributes), "posix_spawn");
    }
    SpawnOptions(const SpawnOptions&) = delete;
    SpawnOptions& operator=(const SpawnOptions&) = delete;
    ~SpawnOptions()
    {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

/// A running program in a session of its own, which has no terminal, and so in a process group of its own.
class Child
{
public:
    Child(const std::vector<std::string>& words, const Pipe& output, const Pipe& errors)
    {
        SpawnOptions options;
        require(::posix_spawn_file_actions_addopen(&options.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0), "spawn");
        require(::posix_spawn_file_actions_adddup2(&options.actions, output.writeEnd(), STDOUT_FILENO), "spawn");
        require(::posix_spawn_file_actions_adddup2(&options.actions, errors.writeEnd(), STDERR_FILENO), "spawn");
        require(::posix_spawn_file_actions_addclosefrom_np(&options.actions, STDERR_FILENO + 1), "spawn");
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        require(::posix_spawnattr_setsigmask(&options.attributes, &none), "spawn");
        require(::posix_spawnattr_setsigdefault(&options.attributes, &all), "spawn");
        require(::posix_spawnattr_setflags(
                    &options.attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF),
            "spawn");
        std::vector<char*> arguments(words.size() + 1); // ends with a null pointer
        std::transform(words.begin(), words.end(), arguments.begin(),
            [](const std::string& word) { return const_cast<char*>(word.c_str()); }); // the type is older than const
        require(::posix_spawnp(&m_id, arguments[0], &options.actions, &options.attributes, arguments.data(), environ),
            words.front().c_str());
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        if (!m_isReaped)
        {
            // The whole group: the program may be a script. Not reaped yet, it keeps the number from being given away.
            ::kill(-m_id, SIGKILL);
            wait(0);
        }
    }

    /// Whether the program has ended; sets the failure.
    bool hasEnded(std::string& failure)
    {
        const siginfo_t info = wait(WNOHANG);
        if (!m_isReaped)
        {
            return false;
        }
        const std::string code = std::to_string(info.si_status);
        failure = info.si_status == 0          ? ""
                  : info.si_code == CLD_EXITED ? "exited with status " + code
                                               : "was ended by signal " + code;
        return true;
    }

private:
    siginfo_t wait(int options)
    {
        siginfo_t info{};
        int error = 0;
        while ((error = ::waitid(P_PID, static_cast<id_t>(m_id), &info, WEXITED | options)) != 0 && errno == EINTR)
        {
        }
        // A host that ignores SIGCHLD has no status of its children. Then what the program printed has to do.
        m_isReaped = error != 0 || info.si_pid == m_id;
        return info;
    }

    pid_t m_id = 0;
    bool m_isReaped = false;
};

} // namespace

ProgramResult runProgram(
    const std::vector<std::string>& words, std::chrono::milliseconds limit, const std::function<bool()>& interrupted)
{
    const auto end = Clock::now() + limit;
    ProgramResult result;
    Pipe output;
    Pipe errors;
    {
        Child child(words, output, errors);
        output.closeWriteEnd();
        errors.closeWriteEnd();
        while (!child.hasEnded(result.failure))
        {
            result.isInterrupted = interrupted && interrupted();
            if (result.isInterrupted || Clock::now() >= end)
            {
                result.failure = result.isInterrupted ? "was interrupted"
                                                      : "has not ended within " + std::to_string(limit.count()) + " ms";
                break;
            }
            std::array<pollfd, 2> ends{output.input(), errors.input()};
            ::poll(ends.data(), ends.size(), tick);
            output.drain();
            errors.drain();
        }
    }
    output.drain();
    errors.drain();
    result.output = output.takeText();
    result.errors = errors.takeText();
    return result;
}

} // namespace storage::clients::s3
