#include "core/SettingsStore.h"

#include "TempSettings.h"

#include <cstring>

namespace widmo {
namespace {

using SettingsStoreTest = test::TempSettings;

// Floats come back bit for bit; values of another kind convert like their text,
// and what is no number (text, a list, an int out of range, nothing) reads 0.
TEST_F(SettingsStoreTest, valuesReadBackBitForBit_orConvertLikeTheirText_orReadZero) {
    const float values[] = {0.136054f, 0.680272f, -107.0f, 44100.0f, 1.0e-7f};
    {
        SettingsStore store("s");
        for (int i = 0; i < 5; ++i)
            store.writeFloat(QString("f%1").arg(i), values[i]);
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
    for (int i = 0; i < 5; ++i) {
        const float back = store.readFloat(QString("f%1").arg(i));
        EXPECT_EQ(0, std::memcmp(&back, &values[i], sizeof back)) << values[i];
    }
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
