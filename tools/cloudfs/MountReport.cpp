#include "MountReport.hpp"

#include "Diagnostics.hpp"
#include "Text.hpp"

#include <storage/clients/common/StoreCounters.hpp>
#include <storage/clients/decorators/FindInterface.hpp>

#include <fmt/format.h>

#include <csignal>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

namespace cloudfs
{

namespace
{

sigset_t reportSignal()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    return signals;
}

} // namespace

void MountReport::blockSignal()
{
    const sigset_t signals = reportSignal();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

MountReport::MountReport(
    storage::mount::Mount& mount, storage::cloudprovider::CloudClient& client, std::filesystem::path file)
    : m_mount(mount)
    , m_client(client)
    , m_file(std::move(file))
    , m_thread(
          [this](const std::stop_token& stop)
          {
              const sigset_t signals = reportSignal();
              for (int signal = 0; ::sigwait(&signals, &signal) == 0 && !stop.stop_requested();)
              {
                  write();
              }
          })
{
}

MountReport::~MountReport()
{
    m_thread.request_stop();
    ::pthread_kill(m_thread.native_handle(), SIGUSR1);
}

void MountReport::write() const
try
{
    std::ostringstream text;
    const auto files = m_mount.unsent();
    text << fmt::format("{} files are not stored yet", files.size());
    for (const auto& file : files)
    {
        text << fmt::format(
            "\n  {} ({} bytes{})", text::printable(file.key), file.size, file.isBeingSent ? ", being sent" : "");
    }
    if (const auto* counters = storage::clients::findInterface<const storage::clients::StoreCounters>(m_client))
    {
        text << "\nstore calls: " << counters->callSnapshot();
    }
    diagnostics::printLine(text.view());
    std::ofstream(m_file) << text.view() << '\n';
}
catch (const std::exception& exception)
{
    diagnostics::printLine(std::string("no report: ") + exception.what());
}

} // namespace cloudfs
