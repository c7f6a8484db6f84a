// A private PostgreSQL server for the tests: a cluster made with initdb in a temporary
// directory and a postmaster on a free port of 127.0.0.1 (and ::1 where there is one), with
// its socket in the same directory. It is started on first use and stopped, with the
// directory removed, at the end of the run. Run as root, it runs as "nobody", since the
// server refuses root. A test run that dies takes the server with it.
#pragma once

#include <sys/types.h>

#include <string>

class PostgresCluster {
public:
        static PostgresCluster& instance();

        // Starts the cluster if it is not running. False, with failure() telling why, if it
        // cannot be started.
        bool start();
        void stop();

        const std::string& failure() const { return failure_; }
        int port() const { return port_; }
        const std::string& socketDirectory() const { return directory_; }
        // Whether the server also listens on ::1.
        bool ipv6() const { return ipv6_; }
        static constexpr const char* kUser = "vdb";
        // Holds the characters that a URL must escape.
        static constexpr const char* kPassword = "p@ss:w/rd%?";
        static constexpr const char* kEscapedPassword = "p%40ss%3Aw%2Frd%25%3F";
        // postgresql://vdb:<password>@127.0.0.1:<port>/postgres
        std::string url() const;

private:
        PostgresCluster() = default;
        bool tryStart();
        bool launch();

        std::string binaries_;
        std::string directory_;
        std::string failure_;
        pid_t postmaster_ = -1;
        int port_ = 0;
        bool tried_ = false;
        bool ipv6_ = false;
};
