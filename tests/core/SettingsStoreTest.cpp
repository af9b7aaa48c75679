#include "core/SettingsStore.h"

#include "TempSettings.h"

namespace widmo {
namespace {

using SettingsStoreTest = test::TempSettings;

// Values of another kind convert like their text, and what is no number (text,
// a list, an int out of range, nothing) reads 0.
TEST_F(SettingsStoreTest, valuesConvertLikeTheirText_orReadZero) {
    {
        SettingsStore store("s");
        store.writeBool("b", true);
        store.writeInt("i", 7);
        store.writeString("t", "0");
        ASSERT_TRUE(store.sync());
        QSettings raw(QSettings::NativeFormat, QSettings::UserScope, "Widmo", "s");
        raw.setValue("text", "hello");
        raw.setValue("list", QStringList{"a", "b"});
        raw.setValue("huge", "1e30");
    }
    SettingsStore store("s");
    EXPECT_TRUE(store.readBool("b"));
    EXPECT_EQ(1, store.readInt("b"));
    EXPECT_TRUE(store.readBool("i"));
    EXPECT_EQ(7.0f, store.readFloat("i"));
    EXPECT_FALSE(store.readBool("t"));
    for (const char* key : {"text", "list", "absent"}) {
        EXPECT_EQ(0, store.readInt(key)) << key;
        EXPECT_EQ(0.0f, store.readFloat(key)) << key;
        EXPECT_FALSE(store.readBool(key)) << key;
    }
    EXPECT_EQ(0, store.readInt("huge")) << "out of the int range";
    EXPECT_TRUE(store.readString("absent").isEmpty());
}

} // namespace
} // namespace widmo
