#include "alarmd/base/complaint.h"

#include <csignal>
#include <stdexcept>

#include "alarmd/project/groups.h"
#include "alarmd/project/users.h"
#include "tests/support/project_files.h"

namespace {

using testing::KilledBySignal;

const Complaint kLine{ComplaintCode::kGroupNumber, "list.acc", "group 12 is not there", 7};
const Complaint kElement{ComplaintCode::kElementDropped, "users.json", "not an object", 0, 3};
const Complaint kFile{ComplaintCode::kUnreadable, "cas.csv", "Permission denied"};
const Complaint kMessages{ComplaintCode::kNotJson, "users.json", "Failed\n* Line 1, Column 1\n  No.\n", 1};

TEST(ComplaintTest, IsDescribedWithItsPlace) {
    EXPECT_EQ(describe(kLine), "list.acc, line 7: group 12 is not there");
    EXPECT_EQ(describe(kElement), "users.json, element 3: not an object");
    EXPECT_EQ(describe(kFile), "cas.csv: Permission denied");
}

TEST(ComplaintTest, TheParsersWordsNameTheLineOfAMalformedSettingThemselves) {
    EXPECT_EQ(describe({ComplaintCode::kMalformedSetting, "setting.json", "Line 3, Column 5 No.", 3}),
              "setting.json: Line 3, Column 5 No.");
}

TEST(ComplaintTest, IsALineOnStandardError) {
    const Output output = outputOf([] { complain(kLine); });
    EXPECT_EQ(output.err, "alarmd: list.acc, line 7: group 12 is not there\n");
    EXPECT_EQ(output.out, "");
}

TEST(ComplaintTest, TheParsersMessagesGoToStandardOutput) {
    const Output output = outputOf([] { complain(kMessages); });
    EXPECT_EQ(output.out, kMessages.text + "\n");
    EXPECT_EQ(output.err, "");
}

TEST(ComplaintTest, SeveralKeepTheirOrder) {
    EXPECT_EQ(outputOf([] {
                  complainOfAll({kElement, kFile});
              }).err,
              "alarmd: users.json, element 3: not an object\nalarmd: cas.csv: Permission denied\n");
}

TEST(ComplaintDeathTest, AFatalOneEndsTheProcess) {
    EXPECT_EXIT(complainAndEnd(kLine), KilledBySignal(SIGABRT),
                "^alarmd: list.acc, line 7: group 12 is not there\n$");
}

TEST(ComplaintTest, CollectedOnesAreNotPrinted) {
    std::vector<Complaint> complaints;
    const Output output = outputOf([&] {
        complaints = complaintsOf([] {
            complain(kLine);
            complain(kMessages);
            complainOfAll({kElement, kFile});
        });
    });
    EXPECT_EQ(output.out + output.err, "");
    ASSERT_EQ(complaints.size(), 4U);
    EXPECT_EQ(complaints[0].code, ComplaintCode::kGroupNumber);
    EXPECT_EQ(complaints[0].file, "list.acc");
    EXPECT_EQ(complaints[0].line, 7U);
    EXPECT_EQ(complaints[1].code, ComplaintCode::kNotJson);
    EXPECT_EQ(complaints[2].element, 3U);
    for (const Complaint& complaint : complaints) EXPECT_FALSE(complaint.fatal);
    EXPECT_NE(outputOf([] { complain(kLine); }).err, "");
}

TEST(ComplaintTest, ACollectedFatalOneIsTheLastAndEndsTheLoadersOnly) {
    const std::vector<Complaint> complaints = complaintsOf([] {
        complain(kFile);
        complainAndEnd(kLine);
    });
    ASSERT_EQ(complaints.size(), 2U);
    EXPECT_FALSE(complaints[0].fatal);
    EXPECT_TRUE(complaints[1].fatal);
    EXPECT_EQ(complaints[1].text, kLine.text);
}

TEST(ComplaintTest, ACollectionWithinACollectionTakesItsOwn) {
    const std::vector<Complaint> complaints = complaintsOf([] {
        EXPECT_EQ(complaintsOf([] { complain(kFile); }).size(), 1U);
        complain(kLine);
    });
    ASSERT_EQ(complaints.size(), 1U);
    EXPECT_EQ(complaints[0].code, kLine.code);
}

TEST(ComplaintTest, AnExceptionOfTheLoadersEndsTheCollection) {
    EXPECT_THROW(complaintsOf([] { throw std::runtime_error("reason"); }), std::runtime_error);
    EXPECT_NE(outputOf([] { complain(kLine); }).err, "");
}

using LoaderComplaintTest = ProjectTest;

TEST_F(LoaderComplaintTest, AUserLineOfFourColumnsIsTheLastAndTheLinesBeforeItAreStored) {
    acc_list =
        folder_.write("list.acc", "1;Jan;12;jan@plant.example; \n2;Eva;1;eva@plant.example;+42\n1;x;1;y\n");
    std::vector<Complaint> complaints;
    outputOf([&] { complaints = complaintsOf(readUser); });
    ASSERT_EQ(complaints.size(), 2U);
    EXPECT_EQ(describe(complaints[0]), acc_list + ", line 1: group 12 is not within 0 to 11, ignored");
    EXPECT_EQ(complaints[1].code, ComplaintCode::kFourColumns);
    EXPECT_EQ(complaints[1].line, 3U);
    EXPECT_TRUE(complaints[1].fatal);
    EXPECT_EQ(groupNo(1).mail, (std::list<std::string>{"eva@plant.example", "y"}));
}

TEST_F(LoaderComplaintTest, AGroupFileThatIsNoJsonHasItsLine) {
    group_list_json = folder_.write("groups.json", "[\n{]");
    std::vector<Complaint> complaints;
    const Output output = outputOf([&] { complaints = complaintsOf(readGroupJson); });
    EXPECT_EQ(output.out, "Nacitam groups.json\n");
    ASSERT_EQ(complaints.size(), 1U);
    EXPECT_EQ(complaints[0].code, ComplaintCode::kNotJson);
    EXPECT_EQ(complaints[0].line, 2U);
}

}  // namespace
