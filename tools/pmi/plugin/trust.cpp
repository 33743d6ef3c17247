// Whoever may write in a folder may put another file, or another folder, in the place of what is
// there. So the file and its folder must be the user's or root's and nobody else's to write, and no
// folder above may be everybody's. Owners, groups and ACLs further up are left to the
// administrator: they are often those of a mount. A folder with the sticky bit, as /tmp has it, is
// safe.
#include "plugin/trust.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <vector>

#include <endian.h>
#include <fmt/format.h>
#include <grp.h>
#include <linux/limits.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <linux/xattr.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/xattr.h>
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

std::string describe_writer(std::string_view who, const std::string &path, unsigned int mode,
                            std::string_view remedy) {
    return fmt::format("{} may write '{}' (mode {:04o}); allowed are you and root: take that away "
                       "with '{}'",
                       who, path, mode & 07777u, remedy);
}

std::string find_other_group(gid_t gid, const std::string &path, unsigned int mode,
                             std::string_view remedy) {
    return is_trusted_group(gid)
               ? ""
               : describe_writer(fmt::format("group {}", gid), path, mode, remedy);
}

// Whom one entry of an ACL lets write. The file's owner and everybody are not asked here: what they
// may do stands in the mode as well.
std::string find_other_writer(const posix_acl_xattr_entry &entry, const std::string &path,
                              const struct stat &status) {
    const std::uint32_t id = le32toh(entry.e_id);
    if ((le16toh(entry.e_perm) & ACL_WRITE) == 0) {
        return "";
    }
    switch (le16toh(entry.e_tag)) {
    case ACL_USER:
        return is_trusted(id) ? ""
                              : describe_writer(fmt::format("user {}", id), path, status.st_mode,
                                                "setfacl -b");
    case ACL_GROUP:
        return find_other_group(id, path, status.st_mode, "setfacl -b");
    case ACL_GROUP_OBJ:
        return find_other_group(status.st_gid, path, status.st_mode, "chmod g-w");
    default:
        return "";
    }
}

// Who may write what its mode lets the group write. With an ACL these bits of the mode are its
// mask: the most that the group, and the users and groups in the ACL, are given.
std::string find_other_writers_by_group(const std::string &path, const struct stat &status) {
    std::vector<char> acl(XATTR_SIZE_MAX);
    const ssize_t len =
        lgetxattr(path.c_str(), XATTR_NAME_POSIX_ACL_ACCESS, acl.data(), acl.size());
    if (len < 0 && (errno == ENODATA || errno == ENOTSUP)) {
        return find_other_group(status.st_gid, path, status.st_mode, "chmod g-w");
    }
    if (len < 0) {
        return fmt::format("'{}': its ACL cannot be read: {}", path, std::strerror(errno));
    }
    acl.resize(static_cast<std::size_t>(len));
    posix_acl_xattr_header header{};
    std::memcpy(&header, acl.data(), std::min(acl.size(), sizeof header));
    if (le32toh(header.a_version) != POSIX_ACL_XATTR_VERSION) {
        return fmt::format("'{}': its ACL is of the unknown version {}", path,
                           le32toh(header.a_version));
    }
    std::string found;
    posix_acl_xattr_entry entry{};
    for (std::size_t at = sizeof header; found.empty() && at + sizeof entry <= acl.size();
         at += sizeof entry) {
        std::memcpy(&entry, acl.data() + at, sizeof entry);
        found = find_other_writer(entry, path, status);
    }
    return found;
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
    const unsigned int mode = status.st_mode;
    if (S_ISDIR(status.st_mode) && (mode & S_ISVTX) != 0) {
        return "";
    }
    if ((mode & S_IWOTH) != 0) {
        return describe_writer("everybody", path, mode, "chmod o-w");
    }
    return is_near && (mode & S_IWGRP) != 0 ? find_other_writers_by_group(path, status) : "";
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
