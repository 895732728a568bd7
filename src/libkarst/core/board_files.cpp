// SPDX-License-Identifier: Apache-2.0
#include "board_files.hpp"

#include "fault_injection.hpp"
#include "run_root.hpp"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace karst::board {
namespace {

constexpr int DIRECTORY_FLAGS = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int FILE_FLAGS = O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;
constexpr mode_t GROUP_OTHER_WRITE = S_IWGRP | S_IWOTH;
// Directories are made as mkdir(1) makes them, the umask applying; a mode's permission bits.
constexpr mode_t NEW_DIRECTORY_MODE = 0777;
constexpr mode_t PERMISSION_BITS = 07777;
constexpr std::size_t COPY_CHUNK = 65536;

bool owner_ok(uid_t owner, uid_t euid) {
    return owner == euid || owner == 0;
}

// A path and the routine that uses it, for the one line a refusal prints.
struct Use {
    std::string_view board_path;
    log::Site site;

    Opened refuse(const char *reason) const {
        KARST_E_AT(site, "Refused %s: %s\n", platform_path(board_path).c_str(), reason);
        return {Fd(), Found::refused};
    }
};

Opened not_opened() {
    return {Fd(), errno == ENOENT ? Found::missing : Found::failed};
}

// One acquisition for failure injection per opening, whatever the walk opens on its way.
bool injected() {
    if (fault::inject(fault::Kind::file)) {
        errno = EIO;
        return true;
    }
    return false;
}

// The checked directory that holds the last component of the path, and that component.
struct Parent {
    Opened dir;
    std::string leaf;
};

Parent open_parent(const Use &use) {
    const std::string root = run_root();
    Fd dir(::open(root.empty() ? "/" : root.c_str(), DIRECTORY_FLAGS & ~O_NOFOLLOW));
    if (!dir || use.board_path.empty() || use.board_path.front() != '/') {
        return {not_opened(), {}};
    }
    std::string_view rest = use.board_path.substr(1);
    for (;;) {
        const std::size_t slash = rest.find('/');
        const std::string part(rest.substr(0, slash));
        if (part.empty() || part == "." || part == "..") {
            return {use.refuse("not a plain path"), {}};
        }
        if (slash == std::string_view::npos) {
            return {{std::move(dir), Found::ok}, part};
        }
        Fd next(::openat(dir.get(), part.c_str(), DIRECTORY_FLAGS));
        if (!next) {
            // A link on the way is refused; a file where a directory should be just fails.
            return {errno == ELOOP ? use.refuse("a link on its way") : not_opened(), {}};
        }
        struct stat st {};
        if (::fstat(next.get(), &st) != 0) {
            return {not_opened(), {}};
        }
        if (const char *problem = directory_problem(st, ::geteuid(), false)) {
            return {use.refuse(problem), {}};
        }
        dir = std::move(next);
        rest = rest.substr(slash + 1);
    }
}

// An opening of a board path: its one acquisition for failure injection, then its parent.
Parent enter(const Use &use) {
    if (injected()) {
        return {not_opened(), {}};
    }
    return open_parent(use);
}

// Checks what was opened; the descriptor then blocks again unless asked not to.
Opened checked_file(Fd fd, const Use &use, Kind kind, int flags) {
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        return not_opened();
    }
    if (const char *problem = file_problem(st, ::geteuid(), kind)) {
        return use.refuse(problem);
    }
    if ((flags & O_NONBLOCK) == 0) {
        const int status = ::fcntl(fd.get(), F_GETFL);
        if (status < 0 || ::fcntl(fd.get(), F_SETFL, status & ~O_NONBLOCK) != 0) {
            return not_opened();
        }
    }
    return {std::move(fd), Found::ok};
}

Opened checked_directory(Fd fd, const Use &use) {
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        return not_opened();
    }
    if (const char *problem = directory_problem(st, ::geteuid(), true)) {
        return use.refuse(problem);
    }
    return {std::move(fd), Found::ok};
}

Opened open_directory_in(const Fd &parent, const std::string &name, const Use &use) {
    Fd fd(::openat(parent.get(), name.c_str(), DIRECTORY_FLAGS));
    if (!fd) {
        if (errno == ELOOP || errno == ENOTDIR) {
            return use.refuse("a link or not a directory");
        }
        return not_opened();
    }
    return checked_directory(std::move(fd), use);
}

} // namespace

const char *directory_problem(const struct stat &st, uid_t euid, bool whole) {
    if (!S_ISDIR(st.st_mode)) {
        return "not a directory";
    }
    if (!owner_ok(st.st_uid, euid)) {
        return "a directory owned by another user";
    }
    const bool shared = (st.st_mode & GROUP_OTHER_WRITE) != 0;
    if (shared && (whole || (st.st_mode & S_ISVTX) == 0)) {
        return "a directory writable by group or others";
    }
    return nullptr;
}

const char *file_problem(const struct stat &st, uid_t euid, Kind kind) {
    const bool device = kind == Kind::regular_or_device && S_ISBLK(st.st_mode);
    if (!S_ISREG(st.st_mode) && !device) {
        return "not a regular file";
    }
    if (!owner_ok(st.st_uid, euid)) {
        return "a file owned by another user";
    }
    return nullptr;
}

namespace {

Opened open_checked(const Use &use, int flags, Kind kind) {
    Parent parent = open_parent(use);
    if (!parent.dir) {
        return std::move(parent.dir);
    }
    // Non-blocking, so that a FIFO planted at the path cannot stall the open.
    Fd fd(::openat(parent.dir.get(), parent.leaf.c_str(), flags | FILE_FLAGS | O_NONBLOCK));
    if (!fd) {
        if (errno == ELOOP) {
            return use.refuse("a symbolic link");
        }
        if (errno == ENXIO || errno == EISDIR) {
            return use.refuse("not a regular file");
        }
        return not_opened();
    }
    return checked_file(std::move(fd), use, kind, flags);
}

} // namespace

Opened open_file(std::string_view board_path, int flags, log::Site site, Kind kind) {
    if (injected()) {
        return not_opened();
    }
    return open_checked({board_path, site}, flags, kind);
}

bool program_ok(std::string_view board_path, log::Site site) {
    const Use use{board_path, site};
    const Opened program = open_checked(use, O_RDONLY, Kind::regular);
    struct stat st {};
    if (program && ::fstat(program.get(), &st) == 0 && (st.st_mode & GROUP_OTHER_WRITE) != 0) {
        use.refuse("a program writable by group or others");
        return false;
    }
    return !program.reported();
}

Opened create_file(std::string_view board_path, mode_t mode, int flags, log::Site site) {
    const Use use{board_path, site};
    Parent parent = enter(use);
    if (!parent.dir) {
        return std::move(parent.dir);
    }
    const int dir = parent.dir.get();
    const char *name = parent.leaf.c_str();
    if (::unlinkat(dir, name, 0) != 0 && errno != ENOENT) {
        return errno == EISDIR || errno == EPERM ? use.refuse("a directory is in the way")
                                                 : not_opened();
    }
    Fd fd(::openat(dir, name, flags | O_CREAT | O_EXCL | FILE_FLAGS, mode));
    if (!fd) {
        return errno == EEXIST ? use.refuse("replaced while it was being created") : not_opened();
    }
    return {std::move(fd), Found::ok};
}

Stream create_stream(std::string_view board_path, const char *mode, log::Site site) {
    const bool update = std::strchr(mode, '+') != nullptr;
    Opened fresh = create_file(board_path, NEW_FILE_MODE, update ? O_RDWR : O_WRONLY, site);
    if (!fresh) {
        return {File(), fresh.found};
    }
    File file(file_from(std::move(fresh.fd), mode));
    const Found found = file ? Found::ok : Found::failed;
    return {std::move(file), found};
}

Found copy_into(std::string_view board_path, int source_fd, log::Site site) {
    const std::string name(board_path);
    const std::size_t slash = name.rfind('/');
    const std::string temporary = name.substr(0, slash + 1) + "." + name.substr(slash + 1) + ".new";
    Opened out = create_file(temporary, NEW_FILE_MODE, O_WRONLY, site);
    if (!out) {
        return out.found;
    }
    char chunk[COPY_CHUNK];
    bool copied = ::lseek(source_fd, 0, SEEK_SET) == 0;
    for (ssize_t got = 0; copied && (got = ::read(source_fd, chunk, sizeof chunk)) != 0;) {
        copied = got > 0 && ::write(out.get(), chunk, static_cast<std::size_t>(got)) == got;
    }
    const std::string from = platform_path(temporary);
    if (!copied || ::fsync(out.get()) != 0 || ::close(out.fd.release()) != 0 ||
        ::rename(from.c_str(), platform_path(board_path).c_str()) != 0) {
        const bool directory = errno == EISDIR;
        ::unlink(from.c_str());
        return directory ? Use{board_path, site}.refuse("a directory is in the way").found
                         : Found::failed;
    }
    return Found::ok;
}

Opened open_directory(std::string_view board_dir, log::Site site) {
    const Use use{board_dir, site};
    Parent parent = enter(use);
    if (!parent.dir) {
        return std::move(parent.dir);
    }
    return open_directory_in(parent.dir.fd, parent.leaf, use);
}

Opened make_directory(std::string_view board_dir, log::Site site) {
    const Use use{board_dir, site};
    Parent parent = enter(use);
    if (!parent.dir) {
        return std::move(parent.dir);
    }
    if (::mkdirat(parent.dir.get(), parent.leaf.c_str(), NEW_DIRECTORY_MODE) != 0) {
        if (errno != EEXIST) {
            return not_opened();
        }
        return open_directory_in(parent.dir.fd, parent.leaf, use);
    }
    // Made here: a umask of 0 must not leave it open to every user.
    Fd fd(::openat(parent.dir.get(), parent.leaf.c_str(), DIRECTORY_FLAGS));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) {
        return not_opened();
    }
    if ((st.st_mode & GROUP_OTHER_WRITE) != 0 &&
        ::fchmod(fd.get(), st.st_mode & PERMISSION_BITS & ~GROUP_OTHER_WRITE) != 0) {
        return not_opened();
    }
    return checked_directory(std::move(fd), use);
}

Fd create_fresh(const char *path, mode_t mode) {
    if (injected()) {
        return {};
    }
    if (::unlink(path) != 0 && errno != ENOENT) {
        return {};
    }
    return Fd(::open(path, O_WRONLY | O_CREAT | O_EXCL | FILE_FLAGS, mode));
}

} // namespace karst::board
