// SPDX-License-Identifier: GPL-2.0-or-later
// What the verification adds to an update: the whole path of a 32 MiB installer (transfer,
// SHA-256, saving, handing over) beside a plain transfer of the same bytes from the same local
// service, and beside the digest alone.
#include "fixture.h"

#include <QCryptographicHash>
#include <QDesktopServices>
#include <QEventLoop>
#include <QTemporaryDir>

class BenchUpdates : public QObject {
    Q_OBJECT
    ScriptedService service_;
    QTemporaryDir tmp_;
    QByteArray installer_ = QByteArray(32 << 20, 'i');
    QEventLoop handedOver_;

public:
    Q_SLOT void openUrl(const QUrl &) { handedOver_.quit(); }

private:
    QString url() const { return service_.baseUrl().toString() + "/installer.pkg"; }

private Q_SLOTS:
    void initTestCase()
    {
        // The installer lands in a private folder and is handed to this benchmark, not opened.
        qputenv("TMPDIR", tmp_.path().toUtf8());
        QDesktopServices::setUrlHandler("file", this, "openUrl");
        QVERIFY(service_.listen());
        service_.replies["/installer.pkg"] = {200, installer_};
    }

    void verifiedUpdate()
    {
        TessivaneController controller;
        const QJsonObject release{
            {"url", url()},
            {"sha256",
             QString(QCryptographicHash::hash(installer_, QCryptographicHash::Sha256).toHex())},
            {"name", "installer.pkg"}};
        QBENCHMARK
        {
            controller.downloadAndInstallUpdate(release);
            handedOver_.exec();
        }
    }

    void referencePlainTransfer()
    {
        QNetworkAccessManager manager;
        QBENCHMARK
        {
            QNetworkReply *reply = manager.get(QNetworkRequest(QUrl(url())));
            QEventLoop finished;
            connect(reply, &QNetworkReply::finished, &finished, &QEventLoop::quit);
            finished.exec();
            QCOMPARE(reply->readAll().size(), installer_.size());
            delete reply;
        }
    }

    void referenceDigestAlone()
    {
        QBENCHMARK
        {
            QCryptographicHash::hash(installer_, QCryptographicHash::Sha256);
        }
    }
};

QTEST_MAIN(BenchUpdates)
#include "bench-updates.moc"
