// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "tessivane-api.h"

#include <QElapsedTimer>
#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QString>

class QFrame;
class QLabel;
class QLineEdit;
class QNetworkAccessManager;
class QPushButton;
class QStackedWidget;
class QTimer;
class QWidget;

// Owns the client, the five docks' widgets, the timers and the last data from the service.
class TessivaneController : public QObject {
    Q_OBJECT

public:
    explicit TessivaneController(QObject *parent = nullptr);
    ~TessivaneController() override;

    bool initialize();
    void shutdown();
    void refreshAll();
    void handleFrontendEvent(int event);

    // Dock hosting
    bool registerDock(const char *id, const char *title, QWidget *widget);
    void showDocks();
    void removeDocks();

    QWidget *buildAccountDock();
    QWidget *buildChannelsDock();
    QWidget *buildStreamInfoDock();
    QWidget *buildHealthDock();
    QWidget *buildChatDock();

    // Session
    QString loadSession() const;
    void saveSession(const QString &token);
    void clearSession();
    void setSignedInUi(bool signedIn);

    void refreshHealth();
    void checkForUpdates(bool manual);

private:
    // The tests reach inside through this; no code of the system does.
    friend struct TessivaneTestAccess;

    QFrame *makePanel(QWidget *parent) const;
    QLabel *makeValueLabel(const QString &text, QWidget *parent) const;
    void connectApi();
    void clearWidgetPointers();

    TessivaneApi api_;
    QJsonArray channels_;
    QJsonObject account_;
    QHash<QString, QPointer<QWidget>> docks_;
    QString chatAdaptersSignature_;
    QString chatMessagesSignature_;
    bool initialized_ = false;
    bool ingestConfigured_ = false;
    bool manualUpdateCheck_ = false;
    bool updatePromptOpen_ = false;

    // Account dock
    QStackedWidget *accountStack_ = nullptr;
    QLineEdit *emailEdit_ = nullptr;
    QLineEdit *passwordEdit_ = nullptr;
    QLabel *accountStatusLabel_ = nullptr;
    QLabel *accountNameLabel_ = nullptr;
    QLabel *accountDetailLabel_ = nullptr;
    QLabel *updateStatusLabel_ = nullptr;
    QPushButton *checkUpdatesButton_ = nullptr;

    // Stream Information dock
    QLabel *streamInfoStatusLabel_ = nullptr;

    // Stream Health dock
    QLabel *platformsLabel_ = nullptr;

    QTimer *healthTimer_ = nullptr;
    QTimer *pollTimer_ = nullptr;
    QTimer *updateTimer_ = nullptr;
    QNetworkAccessManager *downloadManager_ = nullptr;
    QElapsedTimer healthClock_;
    quint64 lastTotalBytes_ = 0;
};
