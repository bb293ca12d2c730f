// SPDX-License-Identifier: GPL-2.0-or-later
// The Account dock, the stored session and the signed-in state.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFrame>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QStackedWidget>
#include <QVBoxLayout>

#include <functional>

namespace {
constexpr QLatin1String settingsOrganization("Tessivane");
constexpr QLatin1String settingsApplication("OBS Plugin");
constexpr QLatin1String sessionTokenKey("sessionToken");

// The name the account goes by on the docks: its name, or else its address.
QString accountName(const QJsonObject &account)
{
    const QString name = oneLine(account.value(QStringLiteral("name")).toString()).trimmed();
    return name.isEmpty() ? oneLine(account.value(QStringLiteral("email")).toString()).trimmed()
                          : name;
}

QString planText(const QJsonValue &plan)
{
    if (plan.isObject())
        return plan.toObject().value(QStringLiteral("name")).toString();
    return plan.toString();
}
} // namespace

QWidget *TessivaneController::buildAccountDock()
{
    QWidget *root = makeRoot();
    QVBoxLayout *layout = scrollingRootLayout(root, 12, 10);

    auto *brand = new QLabel(QStringLiteral("TESSIVANE"), root);
    brand->setObjectName(QStringLiteral("TessivaneBrand"));
    layout->addWidget(brand);
    layout->addWidget(heading(QStringLiteral("Account"), root));

    accountStack_ = new QStackedWidget(root);

    QFrame *signInPage = makePanel(accountStack_);
    auto *signInLayout = new QVBoxLayout(signInPage);
    signInLayout->addWidget(
        muted(QStringLiteral("Sign in with the same Tessivane account you use on the website."),
              signInPage));
    // A screen reader takes a placeholder for a description only: each field is named as well.
    emailEdit_ = new QLineEdit(signInPage);
    emailEdit_->setAccessibleName(QStringLiteral("E-mail"));
    emailEdit_->setPlaceholderText(QStringLiteral("Email address"));
    signInLayout->addWidget(emailEdit_);
    passwordEdit_ = new QLineEdit(signInPage);
    passwordEdit_->setAccessibleName(QStringLiteral("Password"));
    passwordEdit_->setPlaceholderText(QStringLiteral("Password"));
    passwordEdit_->setEchoMode(QLineEdit::Password);
    signInLayout->addWidget(passwordEdit_);
    auto *signInButton = new QPushButton(QStringLiteral("Sign In"), signInPage);
    signInLayout->addWidget(signInButton);
    accountStatusLabel_ = muted(QString(), signInPage);
    signInLayout->addWidget(accountStatusLabel_);

    QFrame *accountPage = makePanel(accountStack_);
    auto *accountLayout = new QVBoxLayout(accountPage);
    accountNameLabel_ = makeValueLabel(QStringLiteral("Tessivane"), accountPage);
    accountLayout->addWidget(accountNameLabel_);
    accountDetailLabel_ = muted(QStringLiteral("Free plan"), accountPage);
    accountLayout->addWidget(accountDetailLabel_);
    auto *manageButton = new QPushButton(QStringLiteral("Manage Account"), accountPage);
    accountLayout->addWidget(manageButton);
    checkUpdatesButton_ = new QPushButton(QStringLiteral("Check for Updates"), accountPage);
    accountLayout->addWidget(checkUpdatesButton_);
    updateStatusLabel_ =
        muted(QStringLiteral("Tessivane OBS Plugin v%1").arg(pluginVersion), accountPage);
    accountLayout->addWidget(updateStatusLabel_);
    auto *signOutButton = new QPushButton(QStringLiteral("Sign Out"), accountPage);
    accountLayout->addWidget(signOutButton);

    accountStack_->addWidget(signInPage);
    accountStack_->addWidget(accountPage);
    layout->addWidget(accountStack_);
    layout->addStretch(1);

    connect(signInButton, &QPushButton::clicked, this, [this, signInButton]() {
        accountStatusLabel_->setText(QStringLiteral("Signing in..."));
        announce(signInButton, accountStatusLabel_->text());
        api_.login(emailEdit_->text(), passwordEdit_->text());
    });
    // Return in the password field signs in; the e-mail field has no such shortcut.
    connect(passwordEdit_, &QLineEdit::returnPressed, signInButton, &QPushButton::click);
    connect(manageButton, &QPushButton::clicked, []() {
        QDesktopServices::openUrl(QUrl(QStringLiteral(TESSIVANE_SERVICE_ORIGIN "/account/")));
    });
    connect(signOutButton, &QPushButton::clicked, &api_, &TessivaneApi::logout);
    return root;
}

QString TessivaneController::loadSession() const
{
    const QSettings settings(settingsOrganization, settingsApplication);
    return settings.value(sessionTokenKey).toString().trimmed();
}

namespace {
// The settings file holds the session token: it is for the streamer's eyes only, also before the
// token is first written, since Qt keeps a file's permissions when it writes it anew.
void writeSettings(const std::function<void(QSettings &)> &write)
{
    QSettings settings(settingsOrganization, settingsApplication);
    const QString file = settings.fileName();
    QDir().mkpath(QFileInfo(file).path());
    if (QFile made(file); made.open(QIODevice::Append))
        made.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    write(settings);
}
} // namespace

void TessivaneController::saveSession(const QString &token)
{
    api_.setSessionToken(token);
    writeSettings([&token](QSettings &settings) { settings.setValue(sessionTokenKey, token); });
}

void TessivaneController::clearSession()
{
    api_.setSessionToken(QString());
    writeSettings([](QSettings &settings) { settings.remove(sessionTokenKey); });
}

void TessivaneController::setSignedInUi(bool signedIn)
{
    if (!accountStack_)
        return;
    accountStack_->setCurrentIndex(signedIn ? 1 : 0);
    if (!signedIn) {
        accountStatusLabel_->setText(QString());
        return;
    }
    // Two lines, the plan's and the address's, each one line of the record.
    const QString email = oneLine(account_.value(QStringLiteral("email")).toString()).trimmed();
    accountNameLabel_->setText(shownText(accountName(account_)));
    QString plan = oneLine(planText(account_.value(QStringLiteral("plan"))));
    if (plan.isEmpty())
        plan = QStringLiteral("Free");
    accountDetailLabel_->setText(shownText(QStringLiteral("%1 plan\n%2").arg(plan, email)));
}

void TessivaneController::announceSignIn(bool signedIn)
{
    const QString name = accountName(account_);
    announce(accountStack_, !signedIn ? QStringLiteral("Signed out.")
                            : name.isEmpty()
                                ? QStringLiteral("Signed in.")
                                : shownText(QStringLiteral("Signed in as %1.").arg(name)));
}
