// SPDX-License-Identifier: GPL-2.0-or-later
// Loaded into OBS beside the plug-in by the real-host test. A timer on OBS's UI thread that ought
// to fire every 5 ms: whenever it fires more than 3 ms late, the thread was kept from its event
// loop that long, and it appends "<CLOCK_MONOTONIC ms> <lateness ms>" to the file named by
// TESSIVANE_STALL_LOG; a first line "<ms> 0" says that it runs. And every warning Qt reports in
// the process goes, one a line, to the file named by TESSIVANE_QT_LOG, before OBS logs it too.
#include <QElapsedTimer>
#include <QFile>
#include <QTimer>

#include <obs-module.h>

OBS_DECLARE_MODULE()

namespace {
constexpr qint64 intervalMs = 5;
constexpr qint64 reportedMs = 3;
QTimer *probe = nullptr;
QFile *qtLog = nullptr;
QtMessageHandler obsHandler = nullptr;
} // namespace

bool obs_module_load(void)
{
    probe = new QTimer;
    auto *log = new QFile(qEnvironmentVariable("TESSIVANE_STALL_LOG"), probe);
    qtLog = new QFile(qEnvironmentVariable("TESSIVANE_QT_LOG"), probe);
    if (!log->open(QIODevice::Append | QIODevice::Unbuffered) ||
        !qtLog->open(QIODevice::Append | QIODevice::Unbuffered))
        return false;
    obsHandler = qInstallMessageHandler(
        [](QtMsgType type, const QMessageLogContext &context, const QString &message) {
            if (type != QtDebugMsg && type != QtInfoMsg && qtLog)
                qtLog->write(QByteArray(context.category) + ": " +
                             message.toUtf8().replace('\n', ' ') + '\n');
            if (obsHandler)
                obsHandler(type, context, message);
        });
    QElapsedTimer clock;
    clock.start();
    log->write(QByteArray::number(clock.msecsSinceReference()) + " 0\n");
    QObject::connect(probe, &QTimer::timeout, [clock, log]() mutable {
        if (const qint64 lateness = clock.restart() - intervalMs; lateness > reportedMs)
            log->write(QByteArray::number(clock.msecsSinceReference()) + ' ' +
                       QByteArray::number(lateness) + '\n');
    });
    probe->setTimerType(Qt::PreciseTimer);
    probe->start(intervalMs);
    return true;
}

void obs_module_unload(void)
{
    qInstallMessageHandler(obsHandler);
    qtLog = nullptr;
    delete probe;
}
