#include "alarmd/intake/acknowledge.h"

#include <gtest/gtest.h>

#include "alarmd/alarmd.h"

namespace {

class AcknowledgeRequest : public testing::Test {
  protected:
    ~AcknowledgeRequest() override { setProject(""); }

    static void setProject(const std::string& id) {
        MutexLock lock(settings_mutex);
        projectID = id;
    }
};

TEST_F(AcknowledgeRequest, NamesProjectAlarmAndUser) {
    setProject("4");
    EXPECT_EQ(acknowledgeRequest("17", 7), "t=11&prj=4&id=17&userID=7&ackText=ACK_SMS");
    EXPECT_EQ(acknowledgeRequest("", -1), "t=11&prj=4&id=&userID=-1&ackText=ACK_SMS");
}

TEST_F(AcknowledgeRequest, AProjectIdEndsAtItsZeroByte) {
    setProject(std::string("4\0x", 3));
    EXPECT_EQ(acknowledgeRequest("17", 7), "t=11&prj=4&id=17&userID=7&ackText=ACK_SMS");
}

TEST_F(AcknowledgeRequest, IsCutAt999Bytes) {
    setProject("4");
    EXPECT_EQ(acknowledgeRequest(std::string(1000, '1'), 7), "t=11&prj=4&id=" + std::string(985, '1'));
}

}  // namespace
