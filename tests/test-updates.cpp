// SPDX-License-Identifier: GPL-2.0-or-later
// The release check with its boxes, and the verified download of the installer.
#include "fixture.h"

#include <QDesktopServices>
#include <QPushButton>
#include <QTemporaryDir>

#include <unistd.h>

namespace {
const QString question = "Tessivane Update Available|Tessivane OBS Plugin %1 is available.\n\n"
                         "Download the verified installer and begin the update now?";
const QString latest = "Tessivane Updates|You already have the latest version.";
const char upToDate[] = "Tessivane OBS Plugin v0.3.3 is up to date.",
           verified[] = "Update verified. Opening installer...",
           asked[] = "Version 1 is available.",
           metadata[] = "The update metadata could not be verified.",
           failed[] = "Update download failed.",
           saved[] = "The verified installer could not be saved.";
const QByteArray installer = "#!/bin/sh\necho installed\n";

// The release's url (%1: the origin, %2: over http), sha256, name and size; the answer to "/x";
// the updates folder before (see prepare()); the label and the box at the end.
struct Download {
    const char *url;
    QString sha256;
    const char *name;
    int size, code;
    const char *location, *folder, *label, *box;
};
} // namespace

class TestUpdates : public ControllerTest {
    Q_OBJECT
    QTemporaryDir tmp_;

public:
    // Installers land in a private temporary folder and are handed to this test, not opened.
    TestUpdates() { qputenv("TMPDIR", tmp_.path().toUtf8()); }

private:
    static QPushButton *button()
    {
        return withText<QPushButton>(panel("tessivane.account"), "Check for Updates");
    }
    static QWidget *focused() { return button()->window()->focusWidget(); }
    QString label() const { return statusLines()[2]; }
    void emitRelease(const QString &version)
    {
        Q_EMIT api().pluginReleaseLoaded({{"available", true}, {"version", version}});
    }

private Q_SLOTS:
    void versionsComparePieceByPieceAndTheTimersChecksAreQuiet()
    {
        answer_ = [](QDialog *box) {
            press(box, QMessageBox::No);
        };
        Q_EMIT api().pluginReleaseLoaded({{"version", "9.9.9"}});
        QCOMPARE(label(), upToDate);
        for (const char *version : {"0.3.3", " V1.0 ", "0.3.10", "0.3.4-rc.1", "0.3.3-rc1", "",
                                    "vv1.0.0", "0.3..4", "0.3.3.1", "0.3.3.0", "0.3.99999999999"}) {
            const qsizetype asked = modals_.size();
            emitRelease(version);
            QVERIFY2(modals_.size() > asked || label() == upToDate, version);
        }
        QCOMPARE(modals_, QStringList({question.arg("V1.0"), question.arg("0.3.10"),
                                       question.arg("0.3.4-rc.1"), question.arg("0.3.3.1")}));
        // A version of a quarter of a megabyte is cut in the box, as on the label.
        emitRelease("1." + QString(262144, '9'));
        QVERIFY(modals_.size() == 5 && modals_.last().size() < 4200);
        // The checks nobody asked for, after the start and six-hourly, show no box, tell nothing.
        modals_.clear();
        announced().clear();
        QList<int> fired;
        for (QTimer *timer : controller_->findChildren<QTimer *>()) {
            if (!timer->isSingleShot() && timer->interval() != 6 * 60 * 60 * 1000)
                continue;
            fired << timer->interval();
            QMetaObject::invokeMethod(timer, "timeout");
            QVERIFY(!button()->isEnabled());
            QTRY_VERIFY(button()->isEnabled());
        }
        QCOMPARE(fired, QList<int>({21600000, 10000}));
        QCOMPARE(label(), upToDate);
        QCOMPARE(modals_ + announced(), QStringList());
    }

    void manualAndTimerChecksAndTheOneOpenQuestion()
    {
        // While the button waits, the focus waits on the label, never on Sign Out: also when the
        // timer's check comes while a box holds the keyboard.
        button()->setFocus();
        answer_ = [this](QDialog *box) {
            answer_ = {};
            controller_->checkForUpdates(false);
            press(box, QMessageBox::Ok);
        };
        button()->click();
        QCOMPARE(label(), "Checking for updates...");
        QVERIFY(!button()->isEnabled());
        QCOMPARE(qobject_cast<QLabel *>(focused())->text(), label());
        QTRY_COMPARE(modals_, QStringList{latest}); // a reply of "{}" is up to date
        QTRY_VERIFY(button()->isEnabled());
        QCOMPARE(focused(), button());
        // The streamer's check is heard, the timer's not.
        QCOMPARE(announced(), QStringList{upToDate});
        // A timer check during a manual one leaves both without the box.
        button()->click();
        controller_->checkForUpdates(false);
        QCOMPARE(settledTargets().size(), 4);
        QCOMPARE(modals_.size(), 1);
        // No starts nothing; while the question is open, a newer reply only updates the label.
        answer_ = [this](QDialog *box) {
            emitRelease("0.3.5");
            press(box, QMessageBox::No);
        };
        service_.fallback = {200, R"({"available":true,"version":"0.3.4"})"};
        button()->click();
        QTRY_COMPARE(modals_.size(), 2);
        emitRelease("0.3.3");
        emitRelease("v0.4");
        QCOMPARE(modals_, QStringList({latest, question.arg("0.3.4"), question.arg("v0.4")}));
        QCOMPARE(label(), "Version 0.3.5 is available.");
        QVERIFY(button()->isEnabled() && controller_->findChildren<QNetworkReply *>().isEmpty());
    }

    void downloadOutcomes_data()
    {
        const QString digest =
            QCryptographicHash::hash(installer, QCryptographicHash::Sha256).toHex();
        const QString sha = " " + digest.toUpper() + " ";
        const Download rows[] = {
            {"%1/i.pkg", sha, " i.pkg ", 25, 0, "", "none", verified, ""},
            {"%1/x", sha, "i.pkg", 26, 302, "%1/i.pkg", "stale", verified, ""},
            {"%1/i.pkg", sha, "i.pkg", 0, 0, "", "open to all", verified, ""},
            {"%1/i.pkg", sha, "i.pkg", 0, 0, "", "planted link", verified, ""},
            {"%2/i.pkg", sha, "i.pkg", 0, 0, "", "stale", asked, metadata},
            {"%1/i.pkg", digest.left(63), "i.pkg", 0, 0, "", "stale", asked, metadata},
            {"%1/i.pkg", sha, "  ", 0, 0, "", "stale", asked, metadata},
            {"%1/x", sha, "i.pkg", 0, 404, "", "stale", failed,
             "Download failed: Error transferring %1/x - server replied: Not Found"},
            {"%1/x", sha, "i.pkg", 0, 302, "%2/i.pkg", "stale", failed,
             "Download failed: Insecure redirect"},
            {"%1/x", sha, "i.pkg", 0, ScriptedService::hold, "", "stale", failed,
             "Download failed: the server stopped answering"},
            {"%1/i.pkg", sha, "i.pkg", 24, 0, "", "none", failed,
             "Download failed: the installer is larger than its release says"},
            {"%1/i.pkg", QString(64, 'z'), "i.pkg", 0, 0, "", "none", "Update verification failed.",
             "The installer checksum did not match the signed release metadata. Nothing was "
             "installed."},
            {"%1/i.pkg", sha, "a/b.pkg", 0, 0, "", "stale", "Downloading a/b.pkg...", saved},
            {"%1/i.pkg", sha, "..pkg", 0, 0, "", "stale", "Downloading ..pkg...", saved},
            {"%1/i.pkg", sha, "i.pkg", 0, 0, "", "a link", "Downloading i.pkg...", saved},
            {"%1/i.pkg", sha, "i.pkg", 0, 0, "", "another's", "Downloading i.pkg...", saved},
            // Offscreen, nothing opens files once this test stops taking them.
            {"%1/i.pkg", sha, "i.pkg", 0, 0, "", "stale", verified,
             "The verified installer could not be opened."}};
        QTest::addColumn<Download>("row");
        for (const Download &row : rows)
            QTest::addRow("%s %s %s %s", row.url, row.name, row.folder, row.box) << row;
    }

    // The updates folder as another user may leave it: none, the streamer's with a stale
    // installer, open to all, a link planted as the installer, a link, or another user's.
    void prepare(const QString &state)
    {
        QDir folder(tmp_.filePath("TessivaneUpdates"));
        QFile::remove(folder.path()); // a link
        QVERIFY(folder.removeRecursively());
        QDir elsewhere(tmp_.filePath("elsewhere"));
        QVERIFY(elsewhere.removeRecursively() && elsewhere.mkpath("."));
        if (state == "a link")
            QVERIFY(QFile::link(elsewhere.path(), folder.path()));
        if (state == "none" || state == "a link")
            return;
        QVERIFY(folder.mkpath("."));
        QFile stale(folder.filePath("i.pkg"));
        QVERIFY(stale.open(QFile::WriteOnly) && stale.write("stale"));
        stale.close();
        if (state == "open to all")
            QVERIFY(QFile::setPermissions(folder.path(), QFile::Permissions(0x7777)));
        if (state == "planted link")
            QVERIFY(stale.remove() && QFile::link(elsewhere.filePath("mine"), stale.fileName()));
        if (state == "another's")
            QCOMPARE(chown(qPrintable(folder.path()), 65534, 65534), 0);
    }

    void downloadOutcomes()
    {
        QFETCH(Download, row);
        const QString base = service_.baseUrl().toString();
        const auto expand = [&](const char *text) {
            return QString(text).replace("%1", base).replace("%2", "http" + base.mid(5));
        };
        const QString box = *row.box ? "Tessivane Update|" + expand(row.box) : "";
        const bool refused = qstrcmp(row.box, metadata) == 0;
        prepare(row.folder);
        service_.replies["/i.pkg"] = {200, installer};
        service_.replies["/x"] = {row.code, "{}", expand(row.location).toUtf8()};
        if (box.endsWith("opened."))
            QDesktopServices::unsetUrlHandler("file");
        QCOMPARE(TessivaneTestAccess::installerSilence(*controller_), 60000);
        if (box.endsWith("answering"))
            TessivaneTestAccess::installerSilence(*controller_) = 200;
        api().setSessionToken("secret");

        Q_EMIT api().pluginReleaseLoaded({{"available", true},
                                          {"version", "1"},
                                          {"url", expand(row.url)},
                                          {"sha256", row.sha256},
                                          {"name", row.name},
                                          {"size", row.size}});
        QCOMPARE(button()->isEnabled(), refused);
        QTRY_VERIFY(button()->isEnabled());
        QDesktopServices::setUrlHandler("file", this, "openUrl");
        QCOMPARE(label(), row.label);
        QCOMPARE(modals_.mid(1), box.isEmpty() ? QStringList() : QStringList{box});
        // Each outcome of the download the streamer said Yes to is told too.
        const QString told = QString(row.label).startsWith("Update ") ? row.label : "";
        QCOMPARE(announced(), told.isEmpty() ? QStringList()
                                             : QStringList{(told == verified ? "" : "!") + told});
        QCOMPARE(service_.requests.isEmpty(), refused);
        // Only the updater's own headers reach the installer's host, never the session.
        for (const ScriptedService::Request &request : std::as_const(service_.requests))
            QCOMPARE(request.method + request.header("Accept") + request.header("User-Agent") +
                         request.header("Authorization"),
                     "GETapplication/octet-streamTessivane-OBS-Plugin-Updater/0.3.3");

        // The verified installer stands in the streamer's private folder, and nothing else.
        QDir folder(tmp_.filePath("TessivaneUpdates"));
        QFile written(folder.filePath("i.pkg"));
        QCOMPARE(opened_,
                 box.isEmpty() ? QList{QUrl::fromLocalFile(written.fileName())} : QList<QUrl>());
        if (qstrcmp(row.label, verified) == 0) {
            QVERIFY(written.open(QFile::ReadOnly) && !QFileInfo(written).isSymLink());
            QCOMPARE(written.readAll(), installer);
            QCOMPARE(QFileInfo(folder.path()).permissions() & 0x0077, 0);
        }
        QVERIFY(QDir(tmp_.filePath("elsewhere")).isEmpty());
        QCOMPARE(QDir(tmp_.path()).entryList({"*.pkg"}), QStringList());
    }
};

QTEST_MAIN(TestUpdates)
#include "test-updates.moc"
