// SPDX-License-Identifier: GPL-2.0-or-later
// What the service's client and the installer's download share about a reply: the bound on its
// size, and why it ended before its peer was done.
#pragma once

#include <QMetaObject>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QVariant>

// Why the plug-in itself ended a reply, kept on the reply for its finished handler. None when Qt
// or the peer ended it.
enum class EarlyEnd { None, Aborted, TooLarge };

inline constexpr char earlyEndProperty[] = "tessivaneEarlyEnd";

inline void endEarly(QNetworkReply *reply, EarlyEnd why, Qt::ConnectionType when)
{
    reply->setProperty(earlyEndProperty, int(why));
    QMetaObject::invokeMethod(reply, &QNetworkReply::abort, when);
}

inline EarlyEnd earlyEnd(const QNetworkReply *reply)
{
    return EarlyEnd(reply->property(earlyEndProperty).toInt());
}

// Ends a reply that says, or shows, that it holds more than `largest` bytes. Qt reads no further
// than its buffer holds, so even an endless reply costs no more than that.
inline void boundReplySize(QNetworkReply *reply, qint64 largest)
{
    reply->setReadBufferSize(largest + 1);
    // Called from the reply's own signals: the abort waits until they have returned.
    const auto check = [reply, largest](qint64 size) {
        if (size > largest && reply->isRunning())
            endEarly(reply, EarlyEnd::TooLarge, Qt::QueuedConnection);
    };
    QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [reply, check]() {
        check(reply->header(QNetworkRequest::ContentLengthHeader).toLongLong());
    });
    QObject::connect(reply, &QNetworkReply::readyRead, reply,
                     [reply, check]() { check(reply->bytesAvailable()); });
}

// Whether the peer said nothing for the request's transfer time-out: Qt 6.8 aborts such a reply,
// later versions report a time-out. An abort of the plug-in's own is never taken for one.
inline bool replyFellSilent(const QNetworkReply *reply)
{
    return reply->error() == QNetworkReply::TimeoutError ||
           (reply->error() == QNetworkReply::OperationCanceledError &&
            earlyEnd(reply) == EarlyEnd::None);
}
