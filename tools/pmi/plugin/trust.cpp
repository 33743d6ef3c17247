// Whoever may write in a folder may put another file, or another folder, in the place of what is
// there. So the file and its folder must be the user's or root's and nobody else's to write, and no
// folder above may be everybody's. Owners and groups further up are left to the administrator: they
// are often those of a mount. A folder with the sticky bit, as /tmp has it, is safe.
#include "plugin/trust.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pmi_cli {

namespace {

bool is_trusted(uid_t user) {
    return user == 0 || user == geteuid();
}

bool is_trusted(const char *name) {
    const passwd *user = getpwnam(name);
    return user != nullptr && is_trusted(user->pw_uid);
}

// Whether nobody else is in the group: users often have a group of their own, to which their files
// then belong, and system folders one that is empty.
bool is_trusted_group(gid_t gid) {
    const group *found = getgrgid(gid);
    if (found == nullptr) {
        return false;
    }
    for (char **member = found->gr_mem; *member != nullptr; ++member) {
        if (!is_trusted(*member)) {
            return false;
        }
    }
    bool trusted = true;
    setpwent();
    while (const passwd *user = getpwent()) {
        trusted = trusted && (user->pw_gid != gid || is_trusted(user->pw_uid));
    }
    endpwent();
    return trusted;
}

std::string find_other_writers_of_one(const std::string &path, bool is_near) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return fmt::format("'{}': {}", path, std::strerror(errno));
    }
    if (is_near && !is_trusted(status.st_uid)) {
        return fmt::format(
            "'{}' belongs to user {}; allowed is what belongs to you (user {}) or to "
            "root",
            path, status.st_uid, geteuid());
    }
    const unsigned int mode = status.st_mode & 07777u;
    if (S_ISDIR(status.st_mode) && (mode & S_ISVTX) != 0) {
        return "";
    }
    constexpr std::string_view kText = "{} may write '{}' (mode {:04o}); allowed are you and root: "
                                       "take that away with 'chmod {}-w'";
    if ((mode & S_IWOTH) != 0) {
        return fmt::format(kText, "everybody", path, mode, 'o');
    }
    if (is_near && (mode & S_IWGRP) != 0 && !is_trusted_group(status.st_gid)) {
        return fmt::format(kText, fmt::format("group {}", status.st_gid), path, mode, 'g');
    }
    return "";
}

} // namespace

std::string find_other_writers(const std::string &path) {
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    std::string found = find_other_writers_of_one(path, true);
    if (found.empty()) {
        found = find_other_writers_of_one(folder.string(), true);
    }
    for (std::filesystem::path part = folder; found.empty() && part.has_relative_path();) {
        part = part.parent_path();
        found = find_other_writers_of_one(part.string(), false);
    }
    return found;
}

} // namespace pmi_cli
