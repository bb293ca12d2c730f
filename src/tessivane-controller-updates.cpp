// SPDX-License-Identifier: GPL-2.0-or-later
// Finding a newer release of the plug-in, and its verified download.
#include "tessivane-controller.h"
#include "tessivane-replies.h"
#include "tessivane-widgets.h"

#include <QCryptographicHash>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QList>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QPushButton>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>
#include <QTemporaryFile>

#include <obs-frontend-api.h>

namespace {
constexpr char updaterUserAgent[] = "Tessivane-OBS-Plugin-Updater/0.3.3";
constexpr qsizetype sha256HexLength = 64;
// An installer is held whole in memory until its digest has matched: none may be larger.
constexpr qint64 largestInstaller = 512LL * 1024 * 1024;

// A name for a file in the updates folder and nowhere else.
bool plainFileName(const QString &name)
{
    return !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')) &&
           !name.contains(QLatin1String("..")) && QFileInfo(name).fileName() == name;
}

// Whether this process owns the file or folder. Its owner is that of a file the process has just
// made in the temporary location, where nobody else can put another file in its place.
bool ownedByThisProcess(const QFileInfo &info)
{
    QTemporaryFile made;
    return made.open() && QFileInfo(made.fileName()).ownerId() == info.ownerId();
}

// The updates folder in the temporary location, which every user shares: only a real folder of
// the streamer's own that nobody else may enter, made so if need be. Empty when there is none.
QString privateUpdatesFolder()
{
    const QString folder = QDir(QStandardPaths::writableLocation(QStandardPaths::TempLocation))
                               .filePath(QStringLiteral("TessivaneUpdates"));
    QDir().mkdir(folder);
    const QFileInfo info(folder);
    constexpr QFile::Permissions others = QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup |
                                          QFile::ReadOther | QFile::WriteOther | QFile::ExeOther;
    if (info.isSymLink() || !info.isDir() || !ownedByThisProcess(info) ||
        !QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner) ||
        (QFileInfo(folder).permissions() & others))
        return QString();
    return folder;
}

QWidget *mainWindow()
{
    return static_cast<QWidget *>(obs_frontend_get_main_window());
}

// A box over OBS's window; what the service says in it shows as text, never as markup.
QMessageBox::StandardButton ask(QMessageBox::Icon icon, const QString &title, const QString &text,
                                QMessageBox::StandardButtons buttons,
                                QMessageBox::StandardButton defaultButton = QMessageBox::NoButton)
{
    // Cut as a label is: the service's version or address may be a word of megabytes.
    QMessageBox box(icon, title, shownText(text), buttons, mainWindow());
    box.setTextFormat(Qt::PlainText);
    box.setDefaultButton(defaultButton);
    return QMessageBox::StandardButton(box.exec());
}

void showUpdateError(const QString &text)
{
    ask(QMessageBox::Critical, QStringLiteral("Tessivane Update"), text, QMessageBox::Ok);
}

void setText(QLabel *label, const QString &text)
{
    if (label)
        label->setText(text);
}

// "v1.2.3-beta" gives 1, 2, 3: a pre-release compares equal to its release, and a piece that is
// not a number, or too large for an int, counts as 0.
QList<int> versionParts(const QString &version)
{
    static const QRegularExpression leadingV(QStringLiteral("^[vV]"));
    const QStringList pieces = version.trimmed().remove(leadingV).split(u'.', Qt::KeepEmptyParts);
    QList<int> parts;
    for (const QString &piece : pieces)
        parts.append(piece.section(u'-', 0, 0).toInt());
    while (parts.size() < 3)
        parts.append(0);
    return parts;
}

bool isNewer(const QString &version)
{
    const QList<int> latest = versionParts(version);
    const QList<int> current = versionParts(pluginVersion);
    for (qsizetype i = 0; i < qMax(latest.size(), current.size()); ++i) {
        if (latest.value(i) != current.value(i))
            return latest.value(i) > current.value(i);
    }
    return false;
}
} // namespace

void TessivaneController::checkForUpdates(bool manual)
{
    // A timer check that starts during a manual one takes the information box away from it.
    manualUpdateCheck_ = manual;
    // The label says what goes on, so that is where the focus waits.
    setText(updateStatusLabel_, QStringLiteral("Checking for updates..."));
    setEnabledKeepingFocus(checkUpdatesButton_, false, updateStatusLabel_);
    api_.fetchLatestPluginRelease();
}

void TessivaneController::handlePluginRelease(const QJsonObject &release)
{
    setEnabledKeepingFocus(checkUpdatesButton_, true, updateStatusLabel_);
    const QString version = oneLine(release.value(QStringLiteral("version")).toString()).trimmed();
    const bool newer = release.value(QStringLiteral("available")).toBool() && isNewer(version);
    setText(updateStatusLabel_,
            newer ? shownText(QStringLiteral("Version %1 is available.").arg(version))
                  : QStringLiteral("Tessivane OBS Plugin v%1 is up to date.").arg(pluginVersion));
    // Only the streamer's own check is told; a timer's shows on the label alone.
    if (manualUpdateCheck_ && updateStatusLabel_)
        announce(updateStatusLabel_, updateStatusLabel_->text());
    if (!newer) {
        if (manualUpdateCheck_)
            ask(QMessageBox::Information, QStringLiteral("Tessivane Updates"),
                QStringLiteral("You already have the latest version."), QMessageBox::Ok);
        manualUpdateCheck_ = false;
        return;
    }

    // Timers and replies go on inside the question's event loop; one question at a time.
    if (updatePromptOpen_) {
        manualUpdateCheck_ = false;
        return;
    }
    updatePromptOpen_ = true;
    const QPointer<TessivaneController> self(this);
    const QMessageBox::StandardButton answer =
        ask(QMessageBox::Question, QStringLiteral("Tessivane Update Available"),
            QStringLiteral("Tessivane OBS Plugin %1 is available.\n\nDownload the verified "
                           "installer and begin the update now?")
                .arg(version),
            QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes);
    // OBS may have unloaded the module while the question was open.
    if (!self)
        return;
    updatePromptOpen_ = false;
    manualUpdateCheck_ = false;
    if (answer == QMessageBox::Yes)
        downloadAndInstallUpdate(release);
}

void TessivaneController::downloadAndInstallUpdate(const QJsonObject &release)
{
    const QUrl url(release.value(QStringLiteral("url")).toString(), QUrl::TolerantMode);
    const QString sha256 = release.value(QStringLiteral("sha256")).toString().trimmed().toLower();
    const QString name = release.value(QStringLiteral("name")).toString().trimmed();
    const double declared = release.value(QStringLiteral("size")).toDouble();
    const qint64 largest =
        declared > 0 && declared < largestInstaller ? qint64(declared) : largestInstaller;
    if (!url.isValid() || url.scheme() != QLatin1String("https") ||
        sha256.size() != sha256HexLength || name.isEmpty()) {
        showUpdateError(QStringLiteral("The update metadata could not be verified."));
        return;
    }

    setText(updateStatusLabel_, shownText(QStringLiteral("Downloading %1...").arg(oneLine(name))));
    setEnabledKeepingFocus(checkUpdatesButton_, false, updateStatusLabel_);

    // A manager of its own, so that neither the session token nor the client's headers ever
    // reach the installer's host.
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QVariant(int(QNetworkRequest::NoLessSafeRedirectPolicy)));
    request.setRawHeader("Accept", "application/octet-stream");
    request.setRawHeader("User-Agent", updaterUserAgent);
    request.setTransferTimeout(installerSilenceMs_);
    QNetworkReply *reply = downloadManager_->get(request);
    boundReplySize(reply, largest);

    const auto finished = [this, reply, sha256, name]() {
        // The installer stays in memory until its digest has matched: no unverified byte is
        // ever written.
        const QByteArray body = reply->isOpen() ? reply->readAll() : QByteArray();
        QString errorText =
            reply->error() != QNetworkReply::NoError ? reply->errorString() : QString();
        if (earlyEnd(reply) == EarlyEnd::TooLarge)
            errorText = QStringLiteral("the installer is larger than its release says");
        else if (replyFellSilent(reply))
            errorText = QStringLiteral("the server stopped answering");
        reply->deleteLater();
        setEnabledKeepingFocus(checkUpdatesButton_, true, updateStatusLabel_);

        // The streamer said Yes to this download: each outcome is told, besides its box.
        const auto tell = [this](const QString &text, bool failure) {
            setText(updateStatusLabel_, text);
            announce(updateStatusLabel_, text, failure);
        };
        if (!errorText.isEmpty()) {
            tell(QStringLiteral("Update download failed."), true);
            showUpdateError(QStringLiteral("Download failed: %1").arg(errorText));
            return;
        }
        const QString digest =
            QString::fromLatin1(QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex())
                .toLower();
        if (digest != sha256) {
            tell(QStringLiteral("Update verification failed."), true);
            showUpdateError(QStringLiteral("The installer checksum did not match the signed "
                                           "release metadata. Nothing was installed."));
            return;
        }

        // Written whole under a new name and then renamed, so that no link planted under the
        // installer's name is followed, and what is opened is what was verified.
        const QString folder = privateUpdatesFolder();
        const QString path = QDir(folder).filePath(name);
        // Whatever stood under the name goes first: QSaveFile would write through a link.
        if (!folder.isEmpty() && plainFileName(name))
            QFile::remove(path);
        QSaveFile file(path);
        if (folder.isEmpty() || !plainFileName(name) || !file.open(QIODevice::WriteOnly) ||
            file.write(body) != body.size() || !file.commit()) {
            showUpdateError(QStringLiteral("The verified installer could not be saved."));
            return;
        }

        tell(QStringLiteral("Update verified. Opening installer..."), false);
        if (!QDesktopServices::openUrl(QUrl::fromLocalFile(path)))
            showUpdateError(QStringLiteral("The verified installer could not be opened."));
    };
    // Queued, so that no box of this action opens inside Qt's own finishing of the reply: Qt
    // finishes a reply that timed out from code of its own that uses the reply again once the
    // signal returns, and a box's event loop may have deleted it by then.
    connect(reply, &QNetworkReply::finished, this, finished, Qt::QueuedConnection);
}
