// The parts of the simulated modem, each by itself; sim_at_modem_test.cpp has them together.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/modem/at_settings.h"
#include "sim/modem/line_editor.h"
#include "sim/modem/message_access.h"
#include "sim/modem/network.h"
#include "sim/modem/sim_card.h"

namespace {

using sim::AtAnswer;
using sim::AtCommand;
using sim::LineEditor;

AtCommand command(const std::string& text) {
    std::vector<AtCommand> commands;
    EXPECT_TRUE(sim::parseAtLine(text, commands));
    return commands.at(0);
}

TEST(AtAnswerTest, HasAnErrorAsANumberOrInWordsOrNotAtAll) {
    const AtAnswer answer = AtAnswer::cme(sim::kCmePinRequired);
    EXPECT_EQ(sim::finalResult(answer, 0), "\r\nERROR\r\n");
    EXPECT_EQ(sim::finalResult(answer, 1), "\r\n+CME ERROR: 11\r\n");
    EXPECT_EQ(sim::finalResult(answer, 2), "\r\n+CME ERROR: SIM PIN required\r\n");
    EXPECT_EQ(sim::answerBytes(AtAnswer::line("+CSQ: 20,99"), 1), "\r\n+CSQ: 20,99\r\n\r\nOK\r\n");
}

TEST(AtSettingsTest, KeepsAValueUntilTheReset) {
    sim::AtSettings settings;
    EXPECT_EQ(settings.execute(command("+CNMI=1,2"), false)->kind, AtAnswer::kOk);
    EXPECT_EQ(settings.number("+CNMI", 1), 2);
    EXPECT_EQ(settings.execute(command("+CNMI?"), false)->lines, std::vector<std::string>{"+CNMI: 1,2"});
    settings.reset();
    EXPECT_EQ(settings.number("+CNMI", 1), 1);
    EXPECT_FALSE(settings.execute(command("+CSQ"), false));
    EXPECT_FALSE(settings.execute(command("^CURC=0"), false));
    EXPECT_TRUE(settings.execute(command("^CURC=0"), true));
}

class LineEditorTest : public testing::Test {
  protected:
    // What the last byte completes.
    LineEditor::Typed type(const std::string& bytes, bool echo = true) {
        LineEditor::Typed typed = LineEditor::Typed::kNothing;
        for (const char c : bytes) typed = editor.take(c, echo, shown);
        return typed;
    }

    LineEditor editor;
    std::string shown;
};

TEST_F(LineEditorTest, PassesOverWhatStandsBeforeTheLine) {
    EXPECT_EQ(type("\t xaat+CSX\bQ\r"), LineEditor::Typed::kCommand);
    EXPECT_EQ(editor.line(), "at+CSQ");
    EXPECT_EQ(shown, "\t xaat+CSX\bQ\r");
    EXPECT_EQ(type("\r"), LineEditor::Typed::kNothing);
    EXPECT_EQ(type("A/"), LineEditor::Typed::kCommand);
    EXPECT_EQ(editor.line(), "at+CSQ");
}

TEST_F(LineEditorTest, TakesATextOfSeveralLines) {
    editor.beginText();
    EXPECT_FALSE(editor.idle());
    EXPECT_EQ(type("one\rtwo\x1a"), LineEditor::Typed::kText);
    EXPECT_EQ(editor.text(), "one\rtwo");
    EXPECT_EQ(shown, "one\r\n> two");
    EXPECT_TRUE(editor.idle());
    editor.beginText();
    EXPECT_EQ(type("\x1b", false), LineEditor::Typed::kGivenUp);
}

TEST(SimCardTest, WantsItsPukAfterThreeWrongPins) {
    sim::ModemWorld world;
    world.pin = "1234";
    sim::SimCard card(world);
    EXPECT_EQ(card.error(), sim::kCmsPinRequired);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(card.cpin(command("+CPIN=1")).code, sim::kCmeWrongPassword);
    EXPECT_EQ(card.error(), sim::kCmsPukRequired);
    EXPECT_EQ(card.cpin(command("+CPIN=1234")).code, sim::kCmePukRequired);
}

TEST(NetworkTest, TakesAMessageOrTellsWhyNot) {
    sim::ModemWorld world;
    sim::Network network(world);
    world.refusals = 1;
    EXPECT_EQ(network.send(1, "+420", "text\r", sim::kCmsPinRequired).error, sim::kCmsPinRequired);
    EXPECT_EQ(network.send(1, "+420", "text\r", 0).error, 38);
    const sim::SentMessage& message = network.send(2, "+420", "text\r", 0);
    EXPECT_TRUE(message.sent);
    EXPECT_EQ(message.text, "text");
    EXPECT_EQ(message.reference, 1);
    EXPECT_EQ(network.sent().size(), 3U);
}

TEST(NetworkTest, APhoneAnswersByItsHabit) {
    sim::ModemWorld world;
    sim::Network network(world);
    network.answerFrom("+420", "ACK", 2);
    const auto answer = network.answerTo(network.send(0, "+420", "Fire /ack:12", 0));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->message.text, "ACK:12");
    EXPECT_EQ(answer->after, 2);
    EXPECT_FALSE(network.answerTo(network.send(0, "+421", "Fire /ack:12", 0)));
    network.bring(answer->message);
    EXPECT_EQ(network.next()->number, "+420");
    EXPECT_FALSE(network.next());
}

TEST(MessageAccessTest, PutsAMessageWhereItIsToldTo) {
    sim::ModemWorld world;
    const sim::SimCard card(world);
    sim::AtSettings settings;
    sim::MessageStore store(0, 1);
    sim::MessageAccess messages(store, card, settings);
    sim::StoredMessage message;
    message.number = "+420";
    EXPECT_EQ(messages.cmgr(command("+CMGR=0")).code, sim::kCmsNotSupported);
    EXPECT_EQ(messages.take(message), "+CMTI: \"SM\",0");
    store.remove(0);
    settings.execute(command("+CNMI=2,2"), false);
    EXPECT_EQ(messages.take(message), "+CMT: \"+420\",,\"\"\r\n");
    EXPECT_TRUE(store.messages().empty());
}

}  // namespace
