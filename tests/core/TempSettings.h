#pragma once

#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace widmo::test {

/// Points the per-user store at a fresh temporary folder for one test.
class TempSettings : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir_.isValid());
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir_.path());
    }

    QString path() const { return dir_.path(); }
    /// The store's file for `name` (organisation "Widmo").
    QString storeFile(const QString& name) const {
        return dir_.path() + "/Widmo/" + name + ".conf";
    }

private:
    QTemporaryDir dir_;
};

} // namespace widmo::test
