#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <glob.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <vector>

#include <libpq-fe.h>

#include "PostgresCluster.hpp"

namespace {

// A cold start of initdb and the server takes a few seconds; a loaded CI machine may take
// many times that.
constexpr int kReadySeconds = 120;
constexpr int kPortAttempts = 5;

struct Identity {
        bool change = false;
        uid_t uid = 0;
        gid_t gid = 0;
};

// The server refuses to run as root, so root hands it to "nobody".
Identity serverIdentity() {
        Identity id;
        if (geteuid() != 0)
                return id;
        if (struct passwd* pw = getpwnam("nobody")) {
                id.change = true;
                id.uid = pw->pw_uid;
                id.gid = pw->pw_gid;
        }
        return id;
}

// The newest installed server's binaries, e.g. /usr/lib/postgresql/15/bin.
std::string findBinaries() {
        if (const char* dir = getenv("VDB_POSTGRES_BINDIR"))
                return dir;
        std::string best;
        glob_t found;
        if (glob("/usr/lib/postgresql/*/bin/initdb", 0, nullptr, &found) == 0) {
                for (size_t i = 0; i < found.gl_pathc; i++) {
                        std::string dir(found.gl_pathv[i]);
                        dir.resize(dir.size() - strlen("/initdb"));
                        if (best.empty() || strverscmp(dir.c_str(), best.c_str()) > 0)
                                best = dir;
                }
        }
        globfree(&found);
        return best;
}

// Runs argv as identity with output to log; returns the child's pid, or -1.
pid_t spawn(const std::vector<std::string>& args, const std::string& log, const Identity& id,
            bool dieWithParent) {
        std::vector<char*> argv;
        for (const auto& a : args)
                argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        pid_t pid = fork();
        if (pid != 0)
                return pid;
        // Only async-signal-safe calls from here to exec.
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
                dup2(fd, 1);
                dup2(fd, 2);
        }
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0)
                dup2(devnull, 0);
        if (id.change && (setgroups(0, nullptr) != 0 || setgid(id.gid) != 0 || setuid(id.uid) != 0))
                _exit(126);
        // Set after the change of user, which clears it.
        if (dieWithParent)
                prctl(PR_SET_PDEATHSIG, SIGQUIT);
        execv(argv[0], argv.data());
        _exit(127);
}

std::string readTail(const std::string& path) {
        std::ifstream in(path);
        std::stringstream s;
        s << in.rdbuf();
        std::string text = s.str();
        return text.size() > 2000 ? text.substr(text.size() - 2000) : text;
}

int freePort() {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t n = sizeof a;
        int port = 0;
        if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n) == 0)
                port = ntohs(a.sin_port);
        if (fd >= 0)
                close(fd);
        return port;
}

bool hasIPv6Loopback() {
        int fd = socket(AF_INET6, SOCK_STREAM, 0);
        if (fd < 0)
                return false;
        struct sockaddr_in6 a = {};
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_loopback;
        bool ok = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        close(fd);
        return ok;
}

int removeOne(const char* path, const struct stat*, int, struct FTW*) {
        return remove(path);
}

}  // namespace

PostgresCluster& PostgresCluster::instance() {
        static PostgresCluster cluster;
        return cluster;
}

std::string PostgresCluster::url() const {
        return std::string("postgresql://") + kUser + ":" + kEscapedPassword +
               "@127.0.0.1:" + std::to_string(port_) + "/postgres";
}

bool PostgresCluster::start() {
        if (postmaster_ > 0)
                return true;
        if (tried_)
                return false;
        tried_ = true;
        if (!tryStart()) {
                stop();
                return false;
        }
        return true;
}

bool PostgresCluster::tryStart() {
        binaries_ = findBinaries();
        if (binaries_.empty()) {
                failure_ =
                    "no PostgreSQL server is installed (no /usr/lib/postgresql/*/bin/initdb; "
                    "scripts/deps.sh installs the postgresql package)";
                return false;
        }
        char name[] = "/tmp/vdb-postgres-XXXXXX";
        if (!mkdtemp(name)) {
                failure_ = std::string("mkdtemp: ") + strerror(errno);
                return false;
        }
        directory_ = name;
        Identity id = serverIdentity();
        std::string passwordFile = directory_ + "/password";
        { std::ofstream(passwordFile) << kPassword << "\n"; }
        if (id.change && (chown(directory_.c_str(), id.uid, id.gid) != 0 ||
                          chown(passwordFile.c_str(), id.uid, id.gid) != 0)) {
                failure_ = std::string("chown to nobody: ") + strerror(errno);
                return false;
        }
        std::string log = directory_ + "/initdb.log";
        pid_t pid = spawn({binaries_ + "/initdb", "-D", directory_ + "/data", "-U", kUser,
                           "--pwfile=" + passwordFile, "--auth-local=trust",
                           "--auth-host=scram-sha-256", "-E", "UTF8", "--locale=C", "--no-sync"},
                          log, id, false);
        int status = 0;
        if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
            WEXITSTATUS(status) != 0) {
                failure_ = "initdb failed:\n" + readTail(log);
                return false;
        }
        for (int attempt = 0; attempt < kPortAttempts; attempt++)
                if (launch())
                        return true;
        return false;
}

// Starts the postmaster on a fresh port and waits until it accepts connections. False if
// it exited or never became ready, with the reason in failure_.
bool PostgresCluster::launch() {
        port_ = freePort();
        ipv6_ = hasIPv6Loopback();
        std::string addresses = ipv6_ ? "127.0.0.1,::1" : "127.0.0.1";
        std::string log = directory_ + "/postgres.log";
        postmaster_ =
            spawn({binaries_ + "/postgres", "-D", directory_ + "/data", "-p", std::to_string(port_),
                   "-k", directory_, "-c", "listen_addresses=" + addresses, "-c", "fsync=off", "-c",
                   "full_page_writes=off", "-c", "synchronous_commit=off"},
                  log, serverIdentity(), true);
        if (postmaster_ < 0) {
                failure_ = std::string("fork: ") + strerror(errno);
                return false;
        }
        std::string conninfo = "host=" + directory_ + " port=" + std::to_string(port_) +
                               " user=" + kUser + " dbname=postgres connect_timeout=5";
        time_t deadline = time(nullptr) + kReadySeconds;
        while (time(nullptr) < deadline) {
                if (PQping(conninfo.c_str()) == PQPING_OK)
                        return true;
                int status;
                if (waitpid(postmaster_, &status, WNOHANG) == postmaster_) {
                        postmaster_ = -1;
                        failure_ = "the PostgreSQL server exited:\n" + readTail(log);
                        return false;
                }
                usleep(50 * 1000);
        }
        failure_ = "the PostgreSQL server did not accept connections within " +
                   std::to_string(kReadySeconds) + " s:\n" + readTail(log);
        kill(postmaster_, SIGQUIT);
        waitpid(postmaster_, nullptr, 0);
        postmaster_ = -1;
        return false;
}

void PostgresCluster::stop() {
        if (postmaster_ > 0) {
                // Fast shutdown: open sessions are ended, and the server is gone when it exits.
                kill(postmaster_, SIGINT);
                int status;
                waitpid(postmaster_, &status, 0);
                postmaster_ = -1;
        }
        if (!directory_.empty())
                nftw(directory_.c_str(), removeOne, 16, FTW_DEPTH | FTW_PHYS);
        directory_.clear();
}
