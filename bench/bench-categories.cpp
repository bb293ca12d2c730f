// SPDX-License-Identifier: GPL-2.0-or-later
// What a category reply of 100 suggestions costs the box while the streamer types, beside what
// parsing that reply costs the client.
//   QT_QPA_PLATFORM=offscreen build/bench/bench-categories
#include "fixture.h"

#include <QAbstractItemView>
#include <QComboBox>
#include <QJsonDocument>
#include <QLineEdit>

class BenchCategories : public QObject {
    Q_OBJECT

    TessivaneController *controller_ = nullptr;
    QComboBox *box_ = nullptr;
    QByteArray reply_;

private Q_SLOTS:
    void initTestCase()
    {
        QJsonArray categories;
        for (int i = 0; i < 100; ++i)
            categories.append(QJsonObject{{"id", QString::number(509658 + i)},
                                          {"name", QStringLiteral("Just Chatting %1").arg(i)}});
        reply_ = QJsonDocument(QJsonObject{{"categories", categories}}).toJson();
        controller_ = new TessivaneController;
        QVERIFY(controller_->initialize());
        hostDouble::mainWindow()->show();
        QVERIFY(QTest::qWaitForWindowActive(hostDouble::mainWindow()));
        box_ = hostDouble::dock("tessivane.stream-information")->findChild<QComboBox *>();
    }
    void cleanupTestCase() { delete controller_; }

    void parseReply()
    {
        QBENCHMARK
        {
            const QJsonArray categories =
                QJsonDocument::fromJson(reply_).object().value("categories").toArray();
            QCOMPARE(categories.size(), 100);
        }
    }

    void refillBox_data()
    {
        QTest::addColumn<bool>("typing");
        QTest::newRow("typing: the pop-up opens") << true;
        QTest::newRow("box left: silent") << false;
    }

    void refillBox()
    {
        QFETCH(bool, typing);
        const QJsonArray categories =
            QJsonDocument::fromJson(reply_).object().value("categories").toArray();
        TessivaneApi &api = TessivaneTestAccess::api(*controller_);
        box_->lineEdit()->setText("Just Ch");
        if (!typing) {
            box_->hidePopup();
            box_->parentWidget()->findChild<QLineEdit *>()->setFocus(); // the title
        }
        QBENCHMARK
        {
            // Typing puts the focus back in the box, which the pop-up takes at every refill.
            if (typing)
                box_->lineEdit()->setFocus();
            Q_EMIT api.categoriesLoaded("twitch", categories);
        }
        QCOMPARE(box_->count(), 100);
        QCOMPARE(box_->currentText(), "Just Ch");
        QCOMPARE(box_->view()->isVisible(), typing);
    }
};

QTEST_MAIN(BenchCategories)
#include "bench-categories.moc"
