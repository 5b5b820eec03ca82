// A child process for the store's fault tests.
//
//   store_test_child add <database> <fd>
//       Adds log records without end; after each add has returned, writes the record's id and a
//       line feed to file descriptor <fd>. Runs until it is killed.
//   store_test_child readonly <database>
//       Gives up the rights to write the database's folder (it drops every capability, so that
//       root, or root of a user namespace, is held to the permission bits), opens the store,
//       reports how many items it loaded as "loaded <n>", tries one add, and exits with 0.

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kestro/core/console.h"
#include "kestro/core/uuid.h"
#include "kestro/store/request_store_sqlite.h"

namespace {

using namespace kestro;

RequestEventType logRecord(const std::string& id, double createdAt) {
    return RequestTypeLog{id,
                          "log",
                          "info",
                          fromSecondsSince1970(createdAt),
                          fromSecondsSince1970(createdAt),
                          {"request finished with status 200", "com.example.app", "network",
                           "/src/app/client.cc", "client.cc", 42}};
}

bool writeAll(int fd, const std::string& text) {
    const char* p = text.data();
    std::size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return true;
}

int addForever(const char* database, int fd) {
    // Never outlive the test that started it, and never add without bound: a child left
    // behind by a crashed test must not fill the machine.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == 1) return 1;
    RequestStoreSQLite store(database);
    constexpr int kMostAdds = 200000;
    double t = 1.7e9;
    for (int n = 0; n < kMostAdds; ++n, t += 0.001) {
        const std::string id = newUUIDString();
        store.add(logRecord(id, t));
        if (!writeAll(fd, id + "\n")) return 1;
    }
    return 0;
}

int readOnly(const char* database) {
    // Root would write through any permission bits. Switching to another user is not enough
    // inside a user namespace (unshare -r maps no user but root), so the child keeps its user
    // and drops its capabilities instead: the folder's owner bits (no write) then apply to it
    // as they apply to an ordinary owner.
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capset, &header, none) != 0) {
        std::perror("capset");
        return 2;
    }
    RequestStoreSQLite store(database);
    std::printf("loaded %zu\n", store.requests().size());
    std::fflush(stdout);
    store.add(logRecord(newUUIDString(), 1.8e9));
    std::printf("listed %zu\n", store.requests().size());
    std::fflush(stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    setConsoleLevel(LogLevel::verbose);
    if (argc == 4 && std::strcmp(argv[1], "add") == 0)
        return addForever(argv[2], std::atoi(argv[3]));
    if (argc == 3 && std::strcmp(argv[1], "readonly") == 0) return readOnly(argv[2]);
    std::fprintf(stderr, "usage: store_test_child add <database> <fd> | readonly <database>\n");
    return 64;
}
