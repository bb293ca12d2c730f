// SPDX-License-Identifier: GPL-2.0-or-later
// The latest release of the plug-in, and its installer.
#include "dev-service.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QHttpHeaders>

namespace {
const QString currentPluginVersion = QStringLiteral("0.3.3");
const QString newerPluginVersion = QStringLiteral("0.3.4");
const QString installerName = QStringLiteral("TessivaneOBSPlugin-0.3.4-dev.sh");

QString sha256Hex(const QByteArray &bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}
} // namespace

void DevService::routePlugin()
{
    // A harmless script stands in for the installer. Its build time changes its digest from run
    // to run, so only a digest computed from the download can match.
    installer_ =
        QStringLiteral("#!/bin/sh\n"
                       "# Tessivane OBS Plugin %1, development installer built %2.\n"
                       "echo 'Tessivane OBS Plugin %1 (development build): nothing to "
                       "install.'\n")
            .arg(newerPluginVersion, QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs))
            .toUtf8();
    const QString installerPath = QStringLiteral("/downloads/") + installerName;

    handle(QStringLiteral("/api/plugin/releases/latest/macos"), Method::Get,
           [this, installerPath](const QHttpServerRequest &) {
               // The current version, so that a plug-in of this version is told it is up to date.
               if (release_ == Release::Current)
                   return QHttpServerResponse(QJsonObject{
                       {QStringLiteral("available"), true},
                       {QStringLiteral("version"), currentPluginVersion},
                   });
               QString url = origin() + installerPath;
               if (release_ == Release::Http)
                   url.replace(QStringLiteral("https:"), QStringLiteral("http:"));
               // A well-formed digest of other bytes, which the download can't match.
               const QByteArray digested =
                   release_ == Release::WrongDigest ? installer_ + '\n' : installer_;
               return QHttpServerResponse(QJsonObject{
                   {QStringLiteral("available"), true},
                   {QStringLiteral("version"), newerPluginVersion},
                   {QStringLiteral("url"), url},
                   {QStringLiteral("sha256"), sha256Hex(digested)},
                   {QStringLiteral("name"), installerName},
               });
           });

    handle(installerPath, Method::Get, [this, installerPath](const QHttpServerRequest &request) {
        // The installer's host never needs the session; one that arrives here is refused, so that
        // a leak shows as a failed download.
        if (!request.value("Authorization").isEmpty())
            return errorResponse(QHttpServerResponse::StatusCode::BadRequest,
                                 QStringLiteral("An installer download carries no session."));
        if (release_ == Release::Missing)
            return errorResponse(QHttpServerResponse::StatusCode::NotFound,
                                 QStringLiteral("No installer is served in this run."));
        if (release_ == Release::RedirectToHttp) {
            QHttpServerResponse response(QHttpServerResponse::StatusCode::Found);
            QHttpHeaders headers;
            headers.append(QHttpHeaders::WellKnownHeader::Location,
                           QStringLiteral("http://127.0.0.1:%1%2").arg(port()).arg(installerPath));
            response.setHeaders(std::move(headers));
            return response;
        }
        return QHttpServerResponse("application/octet-stream", installer_);
    });
}
