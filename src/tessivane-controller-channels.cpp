// SPDX-License-Identifier: GPL-2.0-or-later
// The Channels dock: adding channels, and the list of cards rebuilt from each reply.
#include "tessivane-controller.h"
#include "tessivane-widgets.h"

#include <QCheckBox>
#include <QFrame>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QScrollArea>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <optional>
#include <utility>

namespace {

struct AddEntry {
    const char *text;
    const char *displayName;
    bool manual; // a pasted server and key instead of the platform's authorization page
};

const AddEntry addEntries[] = {
    {"Twitch", "Twitch", false},
    {"YouTube", "YouTube", false},
    {"Kick", "Kick", false},
    {"Facebook", "Facebook", false},
    {"Facebook Live Producer (manual fallback)", "Facebook", true},
    {"Instagram Live Producer", "Instagram", true},
};

constexpr char facebookIngest[] = "rtmps://live-api-s.facebook.com:443/rtmp/";

// Three questions; a Cancel or a blank answer at any of them ends the chain with nothing sent.
// The key lives only in the dialog and the request.
void addManualDestination(TessivaneApi &api, QWidget *parent, const QString &displayName)
{
    const struct {
        QString title;
        QString label;
        QLineEdit::EchoMode echo;
        QString text;
    } questions[] = {
        {QStringLiteral("Add %1 Live").arg(displayName), QStringLiteral("Channel or account name:"),
         QLineEdit::Normal, displayName},
        {QStringLiteral("%1 Live Server").arg(displayName),
         QStringLiteral("Paste the Server URL from %1 Live Producer:").arg(displayName),
         QLineEdit::Normal,
         displayName == QLatin1String("Facebook") ? QString::fromLatin1(facebookIngest)
                                                  : QString()},
        {QStringLiteral("%1 Stream Key").arg(displayName),
         QStringLiteral("Paste the stream key. Tessivane encrypts it before storage:"),
         QLineEdit::Password, QString()},
    };
    QStringList answers;
    for (const auto &question : questions) {
        bool accepted = false;
        const QString answer = QInputDialog::getText(parent, question.title, question.label,
                                                     question.echo, question.text, &accepted);
        if (!accepted || answer.trimmed().isEmpty())
            return;
        answers << answer; // as typed: the client trims
    }
    api.addManualLiveDestination(displayName.toLower(), answers[0], answers[1], answers[2]);
}

void clearLayout(QLayout *layout)
{
    while (QLayoutItem *item = layout->takeAt(0)) {
        if (QWidget *widget = item->widget())
            widget->deleteLater();
        if (QLayout *inner = item->layout())
            clearLayout(inner);
        delete item;
    }
}

// What a card shows of a record: one line of it.
QString jsonString(const QJsonObject &object, const QString &key, const QString &fallback)
{
    const QString text = oneLine(object.value(key).toString()).trimmed();
    return text.isEmpty() ? fallback : text;
}

QString providerLabel(const QJsonObject &channel)
{
    return jsonString(channel, QStringLiteral("providerName"),
                      jsonString(channel, QStringLiteral("provider"), QStringLiteral("Platform")));
}

// A number is cut towards zero, so 42, 42.9 and "42" name the same channel.
QString channelId(const QJsonValue &id)
{
    if (!id.isDouble())
        return id.toString();
    // Held inside qint64's range, so that the cast is defined for any number.
    const double value = std::clamp(id.toDouble(), -9.2e18, 9.2e18);
    return QString::number(static_cast<qint64>(value));
}

// Which control of which channel's card has the focus in the dock's window, so that a rebuilt list
// can give it back: the card's id, whether it is the remove button (or else the switch), and the
// card's place in the list.
struct CardFocus {
    QString id;
    bool removal = false;
    int index = -1;
};
constexpr char cardIdProperty[] = "tessivaneChannelId";

std::optional<CardFocus> focusedCard(QWidget *container)
{
    // The window's focus, also while a box of its own holds the keyboard.
    QWidget *focused = container->window()->focusWidget();
    if (!focused || !container->isAncestorOf(focused))
        return std::nullopt;
    QWidget *card = focused->parentWidget();
    return CardFocus{card->property(cardIdProperty).toString(),
                     qobject_cast<QToolButton *>(focused) != nullptr,
                     container->layout()->indexOf(card)};
}

// The dock's last control above the list, Refresh: the cards follow it in the Tab order. Cards
// of an earlier list that wait for their deletion are passed over.
QWidget *controlAbove(QWidget *container)
{
    QWidget *control = container->previousInFocusChain();
    while (control != container &&
           (container->isAncestorOf(control) || !(control->focusPolicy() & Qt::TabFocus)))
        control = control->previousInFocusChain();
    return control;
}

// The same control of the same channel's card, or, when the channel has gone, of the card now in
// its place or else the last; with no card left, Refresh.
void giveFocusBack(QWidget *container, const CardFocus &focus)
{
    QList<QWidget *> cards;
    for (int i = 0; i < container->layout()->count(); ++i) {
        QWidget *card = container->layout()->itemAt(i)->widget();
        if (card && card->property(cardIdProperty).isValid())
            cards.append(card);
    }
    const auto same = std::find_if(cards.cbegin(), cards.cend(), [&focus](QWidget *card) {
        return card->property(cardIdProperty).toString() == focus.id;
    });
    QWidget *card = same != cards.cend() ? *same
                    : cards.isEmpty()    ? nullptr
                                         : cards.value(focus.index, cards.constLast());
    QWidget *control = !card           ? controlAbove(container)
                       : focus.removal ? static_cast<QWidget *>(card->findChild<QToolButton *>())
                                       : card->findChild<QCheckBox *>();
    control->setFocus(Qt::OtherFocusReason);
}

void setChannelTextEnabled(QLabel *name, QLabel *meta, bool enabled)
{
    name->setStyleSheet(enabled ? QStringLiteral("font-size: 14px; color: #f9fffe;")
                                : QStringLiteral("font-size: 14px; color: #6f8883;"));
    meta->setStyleSheet(enabled ? QStringLiteral("color: #9ebbb6;")
                                : QStringLiteral("color: #536965;"));
}

} // namespace

QWidget *TessivaneController::buildChannelsDock()
{
    QWidget *root = makeRoot();
    QVBoxLayout *layout = rootLayout(root, 10, 8);

    auto *header = new QHBoxLayout;
    header->addWidget(heading(QStringLiteral("Your Channels"), root));
    header->addStretch(1);
    channelsCountLabel_ = muted(QStringLiteral("0 selected"), root);
    // A short text of our own, which reads best on one line beside the heading, and whole: the
    // dock is never narrower than the heading and the count together.
    channelsCountLabel_->setWordWrap(false);
    header->addWidget(channelsCountLabel_);
    layout->addLayout(header);

    auto *actions = new QHBoxLayout;
    auto *addButton = new QToolButton(root);
    addButton->setText(QStringLiteral("+ Add Channel"));
    addButton->setPopupMode(QToolButton::InstantPopup);
    auto *menu = new QMenu(addButton);
    bool manualPart = false;
    for (const AddEntry &entry : addEntries) {
        // One separator between the platforms' sign-in pages and the pasted destinations.
        if (entry.manual && !std::exchange(manualPart, true))
            menu->addSeparator();
        QAction *action = menu->addAction(QString::fromUtf8(entry.text));
        const QString displayName = QString::fromUtf8(entry.displayName);
        if (entry.manual)
            connect(action, &QAction::triggered, this, [this, root, displayName]() {
                // The dialogs hang on the dock's root, which no render touches.
                addManualDestination(api_, root, displayName);
            });
        else
            connect(action, &QAction::triggered, this,
                    [this, displayName]() { api_.startProviderConnection(displayName.toLower()); });
    }
    addButton->setMenu(menu);
    actions->addWidget(addButton, 1);
    auto *refreshButton = new QPushButton(QStringLiteral("Refresh"), root);
    actions->addWidget(refreshButton, 0);
    layout->addLayout(actions);
    connect(refreshButton, &QPushButton::clicked, &api_, &TessivaneApi::fetchChannels);

    // Only the list shrinks and scrolls: the heading and the buttons stay in view.
    auto *scroll = new QScrollArea(root);
    scroll->setWidgetResizable(true);
    scroll->setMinimumHeight(shortestScroll);
    layout->addWidget(scroll, 1);
    // Named like the root, so that its glow paints behind the list too.
    channelsContainer_ = new QWidget;
    channelsContainer_->setObjectName(QStringLiteral("TessivaneRoot"));
    auto *list = new QVBoxLayout(channelsContainer_);
    list->setContentsMargins(0, 0, 0, 0);
    list->setSpacing(7);
    channelsEmptyLabel_ =
        muted(QStringLiteral("Sign in to load your connected channels."), channelsContainer_);
    list->addWidget(channelsEmptyLabel_);
    list->addStretch(1);
    scroll->setWidget(channelsContainer_);
    showThrough(scroll);
    return root;
}

void TessivaneController::renderChannels(const QJsonArray &channels)
{
    auto *list =
        channelsContainer_ ? qobject_cast<QVBoxLayout *>(channelsContainer_->layout()) : nullptr;
    if (!list)
        return;
    const std::optional<CardFocus> focus = focusedCard(channelsContainer_);
    clearLayout(list);
    // The cards are made long after OBS's own widgets: chained in after Refresh, Tab reaches them
    // in their order before the next dock.
    QWidget *previous = controlAbove(channelsContainer_);

    int selectedCount = 0;
    // Cards for the first few dozen records, which is every record of a real account; the count
    // line still tells how many came.
    for (const QJsonValue &value : partOf(channels, mostChannels)) {
        const QJsonObject channel = value.toObject();
        const bool selected = channel.value(QStringLiteral("selected")).toBool();
        selectedCount += selected ? 1 : 0;

        QFrame *row = makePanel(channelsContainer_);
        row->setEnabled(true);
        const QString id = channelId(channel.value(QStringLiteral("id")));
        row->setProperty(cardIdProperty, id);
        auto *rowLayout = new QHBoxLayout(row);
        rowLayout->setContentsMargins(10, 8, 10, 8);
        rowLayout->setSpacing(9);

        auto *textLayout = new QVBoxLayout;
        const QString provider = providerLabel(channel);
        const QString name = jsonString(channel, QStringLiteral("name"), provider);
        QLabel *nameLabel = makeValueLabel(shownText(name), row);
        QLabel *metaLabel =
            muted(shownText(QStringLiteral("%1  |  %2")
                                .arg(provider, jsonString(channel, QStringLiteral("status"),
                                                          QStringLiteral("Offline")))),
                  row);
        textLayout->addWidget(nameLabel);
        textLayout->addWidget(metaLabel);
        rowLayout->addLayout(textLayout, 1);

        auto *toggle = new QCheckBox(row);
        toggle->setChecked(selected);
        toggle->setToolTip(QStringLiteral("Include this channel in the next stream"));
        // The switch has no text of its own; screen readers need to know whose it is.
        toggle->setAccessibleName(QStringLiteral("Include %1").arg(name));
        rowLayout->addWidget(toggle);

        // Connected after setChecked, so a render never posts a selection.
        connect(toggle, &QCheckBox::toggled, this, [this, id, nameLabel, metaLabel](bool checked) {
            setChannelTextEnabled(nameLabel, metaLabel, checked);
            api_.setChannelSelected(id, checked);
        });

        auto *removeButton = new QToolButton(row);
        removeButton->setText(QStringLiteral("\u00d7"));
        removeButton->setToolTip(QStringLiteral("Remove this connected channel"));
        removeButton->setAccessibleName(QStringLiteral("Remove %1").arg(name));
        rowLayout->addWidget(removeButton);
        QWidget::setTabOrder({previous, toggle, removeButton});
        previous = removeButton;
        connect(removeButton, &QToolButton::clicked, this, [this, id, name]() {
            // A reply may rebuild the list while the box is open and delete this card. So the
            // box hangs on the list's container, which renders keep, and the answer applies to
            // the id taken here, never to whatever card stands in this place afterwards.
            QPointer<QMessageBox> box = new QMessageBox(
                QMessageBox::Question, QStringLiteral("Remove Channel"),
                shownText(
                    QStringLiteral("Remove %1 from Tessivane? You can connect it again later.")
                        .arg(name)),
                QMessageBox::Yes | QMessageBox::Cancel, channelsContainer_);
            box->setDefaultButton(QMessageBox::Cancel);
            box->setTextFormat(Qt::PlainText);
            const QPointer<TessivaneController> self(this);
            const int answer = box->exec();
            // Gone with the dock, at shutdown: nothing is left to act for.
            if (!box || !self)
                return;
            delete box;
            if (answer == QMessageBox::Yes)
                api_.removeChannel(id);
        });

        setChannelTextEnabled(nameLabel, metaLabel, selected);
        list->addWidget(row);
    }

    if (channels.isEmpty()) {
        channelsEmptyLabel_ = muted(
            api_.sessionToken().isEmpty()
                ? QStringLiteral("Sign in to load your connected channels.")
                : QStringLiteral("No channels connected yet. Use Add Channel to connect one."),
            channelsContainer_);
        list->addWidget(channelsEmptyLabel_);
    }
    list->addStretch(1);
    if (focus)
        giveFocusBack(channelsContainer_, *focus);
    channelsCountLabel_->setText(
        QStringLiteral("%1 of %2 selected").arg(selectedCount).arg(channels.size()));
}

QString TessivaneController::channelSummary() const
{
    int selected = 0;
    for (const QJsonValue &channel : partOf(channels_, mostChannels))
        selected += channel.toObject().value(QStringLiteral("selected")).toBool() ? 1 : 0;
    return QStringLiteral("%1 selected").arg(selected);
}
