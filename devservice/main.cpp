// SPDX-License-Identifier: GPL-2.0-or-later
#include "dev-service.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QHash>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

// Only async-signal-safe work here: the event loop picks the byte up and quits.
void onTerminationSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

bool quitOnTerminationSignals(QCoreApplication &app)
{
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, &QCoreApplication::quit);

    struct sigaction action = {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGTERM, &action, nullptr) == 0 &&
           ::sigaction(SIGINT, &action, nullptr) == 0;
}

// The option's port, or -1 after saying on stderr what it must be.
int portValue(const QCommandLineParser &parser, const QCommandLineOption &option, uint lowest)
{
    bool ok = false;
    const uint port = parser.value(option).toUInt(&ok);
    if (ok && port >= lowest && port <= 65535)
        return int(port);
    std::fprintf(stderr, "tessivane-dev-service: --%s needs a number from %u to 65535\n",
                 qPrintable(option.names().constFirst()), lowest);
    return -1;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tessivane-dev-service"));

    const QDir certDir(QStringLiteral(TESSIVANE_DEV_CERT_DIR));
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Local development stand-in for the Tessivane service, on 127.0.0.1."));
    parser.addHelpOption();
    const QCommandLineOption portOption(QStringLiteral("port"),
                                        QStringLiteral("Port to listen on; 0 picks a free one."),
                                        QStringLiteral("N"), QStringLiteral("8787"));
    const QCommandLineOption certOption(
        QStringLiteral("cert"), QStringLiteral("Server certificate (PEM)."), QStringLiteral("PEM"),
        certDir.filePath(QStringLiteral("server.pem")));
    const QCommandLineOption keyOption(
        QStringLiteral("key"), QStringLiteral("Server private key (PEM, unencrypted)."),
        QStringLiteral("PEM"), certDir.filePath(QStringLiteral("server-key.pem")));
    const QCommandLineOption plainOption(
        QStringLiteral("plain"),
        QStringLiteral("Serve plain HTTP instead of HTTPS, for clients that can't be made to "
                       "trust the development CA."));
    const QCommandLineOption rtmpPortOption(
        QStringLiteral("rtmp-port"),
        QStringLiteral("Port of the RTMP server on 127.0.0.1 that the ingest points at."),
        QStringLiteral("N"), QStringLiteral("1935"));
    const QCommandLineOption releaseOption(
        QStringLiteral("release"),
        QStringLiteral("What the release endpoint offers: current (the default), newer, "
                       "wrong-digest, http, redirect-to-http or missing."),
        QStringLiteral("KIND"), QStringLiteral("current"));
    const QCommandLineOption resumeOption(
        QStringLiteral("resume-session"),
        QStringLiteral("Keep a session token of an earlier run valid for the demo account."),
        QStringLiteral("TOKEN"));
    const QCommandLineOption busyChatOption(
        QStringLiteral("busy-chat"),
        QStringLiteral("Keep 500 messages in the chat feed, as on a busy stream."));
    const QCommandLineOption faultOption(
        QStringLiteral("fault"),
        QStringLiteral("Start with the interface in trouble: none (the default), stall or garbage; "
                       "POST /dev/fault switches it later."),
        QStringLiteral("FAULT"), QStringLiteral("none"));
    parser.addOptions({portOption, certOption, keyOption, plainOption, rtmpPortOption,
                       releaseOption, resumeOption, busyChatOption, faultOption});
    parser.process(app);

    const int port = portValue(parser, portOption, 0);
    const int rtmpPort = portValue(parser, rtmpPortOption, 1);
    if (port < 0 || rtmpPort < 0)
        return 2;

    using Release = DevService::Release;
    const QHash<QString, Release> releases = {
        {QStringLiteral("current"), Release::Current},
        {QStringLiteral("newer"), Release::Newer},
        {QStringLiteral("wrong-digest"), Release::WrongDigest},
        {QStringLiteral("http"), Release::Http},
        {QStringLiteral("redirect-to-http"), Release::RedirectToHttp},
        {QStringLiteral("missing"), Release::Missing},
    };
    const QString release = parser.value(releaseOption);
    if (!releases.contains(release)) {
        std::fprintf(stderr, "tessivane-dev-service: unknown --release %s\n", qPrintable(release));
        return 2;
    }

    if (!quitOnTerminationSignals(app)) {
        std::perror("tessivane-dev-service: cannot install signal handlers");
        return 1;
    }

    DevService service;
    service.setIngestPort(quint16(rtmpPort));
    service.setRelease(releases.value(release));
    if (parser.isSet(resumeOption))
        service.resumeSession(parser.value(resumeOption));
    if (parser.isSet(busyChatOption))
        service.keepChatMessages(DevService::busyChatMessages);
    if (!service.setFault(parser.value(faultOption))) {
        std::fprintf(stderr, "tessivane-dev-service: unknown --fault %s\n",
                     qPrintable(parser.value(faultOption)));
        return 2;
    }
    QString error;
    const bool listening = parser.isSet(plainOption)
                               ? service.listenPlain(quint16(port), &error)
                               : service.listen(quint16(port), parser.value(certOption),
                                                parser.value(keyOption), &error);
    if (!listening) {
        std::fprintf(stderr, "tessivane-dev-service: %s\n", qPrintable(error));
        return 1;
    }

    std::printf("Tessivane development service listening on %s\n", qPrintable(service.origin()));
    std::fflush(stdout);
    return app.exec();
}
