// A small backup server: takes what incremental_backup sends over TLS, from clients with a certificate only, and
// keeps one replica up to date.

#include "LogPrinter.h"
#include "Receiver.h"
#include "TlsListener.h"

#include "agent/CertificateStoreFactory.h"
#include "agent/info/Logger.h"

#include <CLI/CLI.hpp>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

namespace backup {

namespace {

using agent::info::Logger;

struct Options {
    unsigned int port = 0;
    std::string store;
    std::string replica;
    std::string log = "/dev/null";
    bool once = false;
};

void serve(const Options& options, Logger& logger)
{
    const agent::Path store(options.store);
    const agent::FileCertificateStoreDescriptor files(
        store / "certificate.pem", store / "private_key.pem", store / "trust_chain.pem", store / "thumbprint");
    TlsListener listener(options.port, *agent::CertificateStoreFactory(logger).createStore(files));
    Logger::Entry(logger, Logger::INFO) << "Listening on 127.0.0.1:" << listener.port();
    while (true) {
        try {
            const auto connection = listener.accept();
            Receiver(
                logger, options.replica, [&](void* data, unsigned int size) { connection->read(data, size); },
                [&](const void* data, unsigned int size) { connection->write(data, size); })
                .receive();
        } catch (const std::exception& e) {
            if (options.once) throw;
            Logger::Entry(logger, Logger::ERROR) << "A client was given up: " << e.what();
        }
        if (options.once) return;
    }
}

/// Reads the command line and serves. Returns the exit status.
int run(int argc, char** argv)
{
    Options options;
    CLI::App app{"Receives backups on 127.0.0.1 over TLS and keeps one replica up to date."};
    app.add_option("--port", options.port, "port to listen on; 0: any, which is printed")->capture_default_str();
    app.add_option("--certificate-store", options.store,
           "folder with certificate.pem, private_key.pem and, for the clients' authority, trust_chain.pem")
        ->required();
    app.add_option("--replica", options.replica, "image to keep up to date; made if missing")->required();
    app.add_option("--log", options.log, "file to which all log lines are added");
    app.add_flag("--once", options.once, "serve one client, and end with status 2 if that fails");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? EXIT_SUCCESS : 2;
    }
    const LogPrinter printer(options.log);
    Logger logger = printer.makeLogger();
    serve(options, logger);
    return EXIT_SUCCESS;
}

} // namespace

} // namespace backup

int main(int argc, char** argv)
{
    // A client that is gone, or a file that may not grow, is an error like any other.
    for (const int signal : {SIGPIPE, SIGXFSZ}) (void)std::signal(signal, SIG_IGN);
    (void)::umask(S_IRWXG | S_IRWXO); // images are nobody else's business
    try {
        return backup::run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "backup_server: " << e.what() << '\n';
        return 2;
    }
}
