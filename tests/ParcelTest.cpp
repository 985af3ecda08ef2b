#include <fcntl.h>
#include <unistd.h>

#include <binder/Parcel.h>
#include <gtest/gtest.h>

using namespace android;

namespace {

TEST(ParcelTest, ReadsBackWhatWasWritten) {
    Parcel parcel;
    parcel.writeInterfaceToken(String16("a.IToken"));
    parcel.writeInt32(-5);
    parcel.writeUint32(0x80000000u);
    parcel.writeInt64(INT64_MIN);
    parcel.writeCString("odd");
    parcel.writeString8(String8("with\0nul", 8));
    parcel.writeString16(String16("sixteen"));
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    close(pipeFds[0]);
    ASSERT_EQ(parcel.writeDupFileDescriptor(pipeFds[1]), NO_ERROR);
    close(pipeFds[1]);
    EXPECT_EQ(parcel.dataSize() % 4, 0u);

    parcel.setDataPosition(0);
    EXPECT_FALSE(parcel.enforceInterface(String16("a.IOther")));
    parcel.setDataPosition(0);
    EXPECT_TRUE(parcel.enforceInterface(String16("a.IToken")));
    EXPECT_EQ(parcel.readInt32(), -5);
    EXPECT_EQ(parcel.readUint32(), 0x80000000u);
    EXPECT_EQ(parcel.readInt64(), INT64_MIN);
    EXPECT_STREQ(parcel.readCString(), "odd");
    EXPECT_EQ(parcel.readString8(), String8("with\0nul", 8));
    EXPECT_EQ(parcel.readString16(), String16("sixteen"));
    const int fd = parcel.readFileDescriptor();
    EXPECT_GE(fcntl(fd, F_GETFD), 0) << "the parcel owns a live copy";
    EXPECT_EQ(parcel.dataAvail(), 0u);
    parcel.freeData();
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "and closes it";
}

TEST(ParcelTest, ShortOrMalformedDataFailsWithoutMoving) {
    const auto expectFails = [](const Parcel& parcel, const char* what) {
        parcel.setDataPosition(0);
        String8 str8;
        String16 str16;
        int32_t i32;
        int64_t i64;
        EXPECT_NE(parcel.readString8(&str8), NO_ERROR) << what;
        EXPECT_NE(parcel.readString16(&str16), NO_ERROR) << what;
        EXPECT_EQ(parcel.readFileDescriptor(), BAD_TYPE) << what;
        if (parcel.dataSize() < 4) {
            EXPECT_EQ(parcel.readInt32(&i32), NOT_ENOUGH_DATA) << what;
        }
        if (parcel.dataSize() < 8) {
            EXPECT_EQ(parcel.readInt64(&i64), NOT_ENOUGH_DATA) << what;
        }
        EXPECT_EQ(parcel.dataPosition(), 0u) << what;
    };
    Parcel parcel;
    expectFails(parcel, "empty");
    parcel.setData(reinterpret_cast<const uint8_t*>("ab"), 2);
    expectFails(parcel, "two bytes");
    EXPECT_EQ(parcel.readCString(), nullptr) << "no terminator";
    EXPECT_EQ(parcel.dataPosition(), 0u);

    for (const int32_t length : {-2, 3, 4, 1000, INT32_MAX}) {
        parcel.freeData();
        parcel.writeInt32(length);
        parcel.write("abcd", 4);
        expectFails(parcel, ("length " + std::to_string(length)).c_str());
    }
    parcel.freeData();
    parcel.writeInt32(0x5f46445f);  // a descriptor slot that no descriptor came with
    parcel.writeInt32(0);
    expectFails(parcel, "descriptor slot");
}

}  // namespace
