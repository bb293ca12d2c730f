// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "tessivane-api.h"

#include <QElapsedTimer>
#include <QHash>
#include <QIcon>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QString>

#include <optional>

class QComboBox;
class QFrame;
class QLabel;
class QLineEdit;
class QListWidget;
class QNetworkAccessManager;
class QPushButton;
class QStackedWidget;
class QTextEdit;
class QTimer;
class QWidget;

// The plug-in's own version: shown on the Account dock, compared with the latest release.
inline constexpr QLatin1StringView pluginVersion("0.3.3");

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
    void restoreDockLayout();

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

    // Channels
    void renderChannels(const QJsonArray &channels);
    QString channelSummary() const;

    // OBS ingest and stream health
    void configureObsIngest(const QJsonObject &ingest);
    void clearObsIngest();
    void refreshHealth();

    // Updates
    void checkForUpdates(bool manual);
    void handlePluginRelease(const QJsonObject &release);
    void downloadAndInstallUpdate(const QJsonObject &release);

private:
    // The tests reach inside through this; no code of the system does.
    friend struct TessivaneTestAccess;

    QFrame *makePanel(QWidget *parent) const;
    QLabel *makeValueLabel(const QString &text, QWidget *parent) const;
    void connectApi();
    // Where the failure of an operation the streamer asked for is told; null for the others.
    QWidget *failureSource(const QString &operation) const;
    void announceSignIn(bool signedIn);
    // The widget pointers of one dock, or with no id those of all five.
    void clearWidgetPointers(const QString &dockId = QString());

    // The reactions to the client's signals that belong to one dock each.
    void showLiveStats(const QJsonArray &stats);
    void showStreamProfile(const QJsonObject &profile);
    void showSyncResults(const QJsonArray &syncResults);
    void fillCategories(const QString &provider, const QJsonArray &categories);
    // The category box the streamer is typing in, if any.
    QWidget *searchingBox() const;
    void showChat(const QJsonArray &messages, const QJsonArray &adapters);
    const QIcon &chatBadge(const QString &providerKey);

    TessivaneApi api_;
    QJsonArray channels_;
    QJsonObject account_;
    QHash<QString, QPointer<QWidget>> docks_;
    // The chat's arrays as last shown; none before the first reply, so that it always counts.
    std::optional<QJsonArray> chatAdaptersSignature_;
    std::optional<QJsonArray> chatMessagesSignature_;
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

    // Channels dock
    QWidget *channelsContainer_ = nullptr;
    QLabel *channelsCountLabel_ = nullptr;
    QLabel *channelsEmptyLabel_ = nullptr;

    // Stream Information dock
    QLineEdit *titleEdit_ = nullptr;
    QTextEdit *descriptionEdit_ = nullptr;
    QLineEdit *notificationEdit_ = nullptr;
    QComboBox *twitchCategoryCombo_ = nullptr;
    QComboBox *kickCategoryCombo_ = nullptr;
    QLineEdit *tagsEdit_ = nullptr;
    QLabel *streamInfoStatusLabel_ = nullptr;

    // Stream Health dock
    QLabel *streamStateLabel_ = nullptr;
    QLabel *uploadLabel_ = nullptr;
    QLabel *droppedFramesLabel_ = nullptr;
    QLabel *optimizationLabel_ = nullptr;
    QLabel *platformsLabel_ = nullptr;
    QPushButton *startStopButton_ = nullptr;

    // Chat dock
    QListWidget *chatList_ = nullptr;
    QComboBox *chatTargetCombo_ = nullptr;
    QLineEdit *chatInputEdit_ = nullptr;
    QPushButton *chatSendButton_ = nullptr;
    // Each platform's badge, painted at its first row and shared by every row after it.
    QIcon chatBadges_[4];

    QTimer *healthTimer_ = nullptr;
    QTimer *pollTimer_ = nullptr;
    QTimer *updateTimer_ = nullptr;
    QNetworkAccessManager *downloadManager_ = nullptr;
    // An installer's host that says nothing for this long is given up.
    int installerSilenceMs_ = 60000;
    QElapsedTimer healthClock_;
    quint64 lastTotalBytes_ = 0;
};
