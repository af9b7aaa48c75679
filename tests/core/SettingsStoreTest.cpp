#include "core/SettingsStore.h"

#include "TempSettings.h"

#include <cstring>

namespace widmo {
namespace {

using SettingsStoreTest = test::TempSettings;

TEST_F(SettingsStoreTest, floatsSurviveTheTextFileBitForBit) {
    const float values[] = {0.136054f, 0.680272f, -107.0f, 44100.0f, 1.0e-7f};
    {
        SettingsStore store("s");
        for (int i = 0; i < 5; ++i)
            store.writeFloat(QString("f%1").arg(i), values[i]);
        ASSERT_TRUE(store.sync());
    }
    SettingsStore store("s");
    for (int i = 0; i < 5; ++i) {
        const float back = store.readFloat(QString("f%1").arg(i));
        EXPECT_EQ(0, std::memcmp(&back, &values[i], sizeof back)) << values[i];
    }
}

TEST_F(SettingsStoreTest, valuesOfTheWrongKindReadAsZero) {
    {
        QSettings raw(QSettings::NativeFormat, QSettings::UserScope, "Widmo", "s");
        raw.setValue("text", "hello");
        raw.setValue("list", QStringList{"a", "b"});
        raw.setValue("huge", "1e30");
    }
    SettingsStore store("s");
    EXPECT_EQ(0, store.readInt("text"));
    EXPECT_EQ(0.0f, store.readFloat("text"));
    EXPECT_FALSE(store.readBool("text"));
    EXPECT_EQ(0, store.readInt("list"));
    EXPECT_FALSE(store.readBool("list"));
    EXPECT_EQ(0, store.readInt("huge")) << "out of the int range";
    EXPECT_EQ(0, store.readInt("absent"));
    EXPECT_TRUE(store.readString("absent").isEmpty());
}

TEST_F(SettingsStoreTest, booleansAndNumbersConvertLikeTheirText) {
    {
        SettingsStore store("s");
        store.writeBool("b", true);
        store.writeInt("i", 7);
        store.writeString("t", "0");
        store.sync();
    }
    SettingsStore store("s");
    EXPECT_TRUE(store.readBool("b"));
    EXPECT_EQ(1, store.readInt("b"));
    EXPECT_TRUE(store.readBool("i"));
    EXPECT_EQ(7.0f, store.readFloat("i"));
    EXPECT_FALSE(store.readBool("t"));
}

} // namespace
} // namespace widmo
