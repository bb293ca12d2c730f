// SPDX-License-Identifier: GPL-2.0-or-later
// The Stream Information dock: the form, its load and save, and the two category search boxes.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QAbstractItemView>
#include <QComboBox>
#include <QCoreApplication>
#include <QKeyEvent>
#include <QFormLayout>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStringList>
#include <QTextEdit>
#include <QVBoxLayout>

namespace {
constexpr int minimumSearchLength = 2;
// A description with a word longer than this runs on in one line: breaking such a word anywhere
// takes Qt time that grows with the square of its length.
constexpr qsizetype longestWrappedWord = 4096;

// While a box's suggestions are open they hold the keyboard; the streamer goes on typing in the
// box all the same. Keys that choose (Up, Down, the page keys, Return, Esc, Tab) stay with the
// list, every other key edits the text, and so searches on.
class TypeThroughSuggestions : public QObject {
public:
    explicit TypeThroughSuggestions(QComboBox *box) : QObject(box), box_(box)
    {
        box->view()->installEventFilter(this);
    }

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        switch (event->type()) {
        case QEvent::KeyPress:
        case QEvent::KeyRelease:
        case QEvent::ShortcutOverride:
            if (choosing(static_cast<QKeyEvent *>(event)->key()))
                return false;
            break;
        case QEvent::InputMethod:
            break;
        default:
            return false;
        }
        QCoreApplication::sendEvent(box_->lineEdit(), event);
        return true;
    }

private:
    static bool choosing(int key)
    {
        switch (key) {
        case Qt::Key_Up:
        case Qt::Key_Down:
        case Qt::Key_PageUp:
        case Qt::Key_PageDown:
        case Qt::Key_Return:
        case Qt::Key_Enter:
        case Qt::Key_Escape:
        case Qt::Key_Tab:
        case Qt::Key_Backtab:
        case Qt::Key_F4:
            return true;
        default:
            return false;
        }
    }

    QComboBox *box_;
};

// The streamer is typing in the box: its line edit has the focus, or its open suggestions do.
bool typingIn(QComboBox *box)
{
    QLineEdit *edit = box->lineEdit();
    return edit && (edit->hasFocus() || box->view()->hasFocus());
}

qsizetype longestWord(const QString &text)
{
    qsizetype longest = 0;
    qsizetype run = 0;
    for (const QChar c : text) {
        run = c.isSpace() ? 0 : run + 1;
        longest = qMax(longest, run);
    }
    return longest;
}

// An editable box whose typed text is a search, never a new item, and whose width stays put while
// its list is refilled.
QComboBox *makeCategoryBox(const QString &placeholder, QWidget *parent)
{
    auto *box = new QComboBox(parent);
    box->setEditable(true);
    box->setInsertPolicy(QComboBox::NoInsert);
    box->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    box->setMinimumContentsLength(20);
    box->lineEdit()->setPlaceholderText(placeholder);
    new TypeThroughSuggestions(box);
    return box;
}

QString field(const QJsonObject &profile, const char *key)
{
    return profile.value(QLatin1String(key)).toString();
}

// A field of the form as it is loaded: whole, up to a length no platform comes near.
QString formField(const QJsonObject &profile, const char *key)
{
    return cutText(field(profile, key), longestField, 0);
}
} // namespace

QWidget *TessivaneController::buildStreamInfoDock()
{
    QWidget *root = makeRoot();
    QVBoxLayout *layout = scrollingRootLayout(root, 12, 8);
    layout->addWidget(heading(QStringLiteral("Stream Information"), root));
    layout->addWidget(muted(QStringLiteral("Updates apply to selected channels. Twitch and Kick "
                                           "categories open as searchable dropdowns."),
                            root));

    // Each field is named by its row's caption, which a screen reader otherwise finds only through
    // the label; a box's own name is its text, so its purpose goes into its description.
    auto *form = new QFormLayout;
    const auto addRow = [form](const char *caption, QWidget *field) {
        const QString text = QString::fromLatin1(caption);
        if (auto *box = qobject_cast<QComboBox *>(field)) {
            box->setAccessibleDescription(text);
            box->lineEdit()->setAccessibleName(text + QLatin1String(" search"));
        } else {
            field->setAccessibleName(text);
        }
        form->addRow(text, field);
    };
    titleEdit_ = new QLineEdit(root);
    addRow("Title", titleEdit_);
    descriptionEdit_ = new QTextEdit(root);
    descriptionEdit_->setMaximumHeight(90);
    // Tab leaves the description as it leaves every other field: a tab character is never what a
    // stream's description wants.
    descriptionEdit_->setTabChangesFocus(true);
    addRow("Description", descriptionEdit_);
    notificationEdit_ = new QLineEdit(root);
    notificationEdit_->setPlaceholderText(
        QStringLiteral("Stored in Tessivane; Twitch/Kick do not expose custom notification text"));
    notificationEdit_->setToolTip(
        QStringLiteral("Twitch and Kick control follower notifications and do not expose a custom "
                       "go-live notification field through their channel APIs."));
    addRow("Tessivane go-live note", notificationEdit_);
    twitchCategoryCombo_ = makeCategoryBox(QStringLiteral("Type to search Twitch"), root);
    addRow("Twitch category", twitchCategoryCombo_);
    kickCategoryCombo_ = makeCategoryBox(QStringLiteral("Type to search Kick"), root);
    addRow("Kick category", kickCategoryCombo_);
    tagsEdit_ = new QLineEdit(root);
    tagsEdit_->setPlaceholderText(QStringLiteral("IRL, basketball, chill"));
    addRow("Tags", tagsEdit_);
    layout->addLayout(form, 0);

    auto *saveButton = new QPushButton(QStringLiteral("Save Stream Information"), root);
    layout->addWidget(saveButton);
    streamInfoStatusLabel_ = muted(QString(), root);
    layout->addWidget(streamInfoStatusLabel_);
    layout->addStretch(1);

    connect(saveButton, &QPushButton::clicked, this, [this]() {
        // A blank part between two commas survives the split and is sent as an empty tag.
        QJsonArray tags;
        const QStringList parts = tagsEdit_->text().split(QLatin1Char(','), Qt::SkipEmptyParts);
        for (const QString &part : parts)
            tags.append(part.trimmed());
        // What stands in a box's line edit is saved, also a name no suggestion offered.
        QJsonObject profile;
        profile.insert(QStringLiteral("title"), titleEdit_->text().trimmed());
        profile.insert(QStringLiteral("description"), descriptionEdit_->toPlainText().trimmed());
        profile.insert(QStringLiteral("notification"), notificationEdit_->text().trimmed());
        profile.insert(QStringLiteral("twitchCategory"),
                       twitchCategoryCombo_->currentText().trimmed());
        profile.insert(QStringLiteral("kickCategory"), kickCategoryCombo_->currentText().trimmed());
        profile.insert(QStringLiteral("tags"), tags);
        api_.saveStreamProfile(profile);
        streamInfoStatusLabel_->setText(QStringLiteral("Saving..."));
        announce(streamInfoStatusLabel_, streamInfoStatusLabel_->text());
    });
    // Only the streamer's typing searches: textEdited stays silent when the code sets the text.
    // Every keystroke that leaves two characters asks at once; the last reply to land wins.
    const auto searchAs = [this](QComboBox *box, const QString &provider) {
        connect(box->lineEdit(), &QLineEdit::textEdited, this,
                [this, provider](const QString &text) {
                    if (text.trimmed().size() >= minimumSearchLength)
                        api_.fetchCategories(provider, text);
                });
    };
    searchAs(twitchCategoryCombo_, QStringLiteral("twitch"));
    searchAs(kickCategoryCombo_, QStringLiteral("kick"));
    return root;
}

void TessivaneController::showStreamProfile(const QJsonObject &profile)
{
    // A load overwrites what is being typed; only sign-in and a restored session ask for it.
    if (!titleEdit_)
        return;
    titleEdit_->setText(formField(profile, "title"));
    const QString description = formField(profile, "description");
    descriptionEdit_->setWordWrapMode(longestWord(description) > longestWrappedWord
                                          ? QTextOption::WordWrap
                                          : QTextOption::WrapAtWordBoundaryOrAnywhere);
    descriptionEdit_->setPlainText(description);
    notificationEdit_->setText(formField(profile, "notification"));
    twitchCategoryCombo_->setCurrentText(formField(profile, "twitchCategory"));
    kickCategoryCombo_->setCurrentText(formField(profile, "kickCategory"));
    QStringList tags;
    const QJsonArray tagValues = profile.value(QLatin1String("tags")).toArray();
    // Each tag takes two characters at least, so that those beyond these never show.
    for (const QJsonValue &tag : partOf(tagValues, longestField / 2))
        tags.append(tag.toString());
    tagsEdit_->setText(cutText(tags.join(QLatin1String(", ")), longestField, 0));
    streamInfoStatusLabel_->setText(QStringLiteral("Synced with Tessivane."));
}

void TessivaneController::showSyncResults(const QJsonArray &syncResults)
{
    // The fields keep what was typed: the service's copy of the profile is not shown back.
    if (!streamInfoStatusLabel_)
        return;
    int updated = 0;
    QStringList failures;
    // One result per channel.
    for (const QJsonValue &value : partOf(syncResults, mostChannels)) {
        const QJsonObject result = value.toObject();
        if (result.value(QLatin1String("ok")).toBool(false))
            ++updated;
        else
            failures.append(QStringLiteral("%1: %2").arg(oneLine(field(result, "channel")),
                                                         oneLine(field(result, "error"))));
    }
    streamInfoStatusLabel_->setText(shownText(
        failures.isEmpty()
            ? QStringLiteral("Stream information pushed to %1 connected channel(s).").arg(updated)
            : QStringLiteral("Updated %1. %2")
                  .arg(QString::number(updated), failures.join(QLatin1Char(' ')))));
    announce(streamInfoStatusLabel_, streamInfoStatusLabel_->text(), !failures.isEmpty());
}

void TessivaneController::fillCategories(const QString &provider, const QJsonArray &categories)
{
    QComboBox *box =
        provider == QLatin1String("twitch") ? twitchCategoryCombo_ : kickCategoryCombo_;
    if (!box)
        return;
    // The typed text outlives the refill, even when a new item carries exactly that name.
    const QString text = box->currentText();
    box->blockSignals(true);
    box->clear();
    for (const QJsonValue &value : partOf(categories, mostSuggestions)) {
        const QJsonObject category = value.toObject();
        box->addItem(QIcon(), cutText(oneLine(field(category, "name"))), field(category, "id"));
    }
    box->setCurrentText(text);
    box->blockSignals(false);

    // A reply for a box the streamer has left refills it silently.
    if (typingIn(box) && !categories.isEmpty())
        box->showPopup();
    if (!streamInfoStatusLabel_ || !typingIn(box))
        return;
    streamInfoStatusLabel_->setText(categories.isEmpty()
                                        ? QStringLiteral("No matching %1 categories.").arg(provider)
                                        : QStringLiteral("%1 %2 category suggestions loaded.")
                                              .arg(QString::number(categories.size()), provider));
    announce(box, streamInfoStatusLabel_->text());
}

QWidget *TessivaneController::searchingBox() const
{
    for (QComboBox *box : {twitchCategoryCombo_, kickCategoryCombo_}) {
        if (box && typingIn(box))
            return box;
    }
    return nullptr;
}
