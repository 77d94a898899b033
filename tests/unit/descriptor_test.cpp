#include "knihovny/descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

namespace {

int anyFile() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST(DescriptorTest, ClosesAtTheEndOfItsLife) {
    const int fd = anyFile();
    {
        const Descriptor descriptor(fd);
        EXPECT_EQ(descriptor.get(), fd);
        EXPECT_TRUE(isOpen(fd));
    }
    EXPECT_FALSE(isOpen(fd));
}

TEST(DescriptorTest, MayOwnNone) {
    Descriptor none;
    EXPECT_EQ(none.get(), -1);
    none.reset();
    EXPECT_EQ(none.get(), -1);
}

TEST(DescriptorTest, ClosesThePresentOneForAnother) {
    Descriptor descriptor(anyFile());
    const int first = descriptor.get(), second = anyFile();
    descriptor.reset(second);
    EXPECT_FALSE(isOpen(first));
    EXPECT_EQ(descriptor.get(), second);
    descriptor.reset();
    EXPECT_FALSE(isOpen(second));
}

TEST(DescriptorTest, HasOneOwner) {
    Descriptor first(anyFile());
    const int fd = first.get();
    Descriptor second(std::move(first));
    EXPECT_EQ(second.get(), fd);
    Descriptor third(anyFile());
    const int replaced = third.get();
    third = std::move(second);
    EXPECT_FALSE(isOpen(replaced));
    EXPECT_TRUE(isOpen(fd));
}

}  // namespace
