#pragma once

#include <optional>
#include <string>
#include <vector>

namespace cloudfs
{

/// Translate the arguments that mount(8) passes to a program called mount.cloudfs, for an entry of /etc/fstab such as
/// `s3://BUCKET /mnt/bucket cloudfs ro,allow_other,uid=1000,_netdev 0 0`.
///
/// @param program    the name by which the program was called
/// @param arguments  STORE DIR [-snv] [-N NAMESPACE] [-t TYPE] [-o OPTION,…]; an option is one of `cloudfs mount`, with
/// "_" or "-"
/// @return the arguments of the program cloudfs; nullopt: it was not called by that name
std::optional<std::vector<std::string>> fromMountHelper(
    const std::string& program, const std::vector<std::string>& arguments);

} // namespace cloudfs
