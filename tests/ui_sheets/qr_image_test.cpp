// The invitation's QR code: the geometry a camera relies on, and that a real
// decoder reads back the very link.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <QDir>
#include <QString>
#include <QTemporaryDir>
#include <string>

#include "ui/qr/qr_image.h"

namespace vt::ui {
namespace {

constexpr int px = 8;
constexpr int quiet = 4;

bool dark(const QImage& image, int moduleX, int moduleY) {
    // The centre pixel of a module, counted from the symbol's corner.
    const int x = (moduleX + quiet) * px + px / 2;
    const int y = (moduleY + quiet) * px + px / 2;
    return qGray(image.pixel(x, y)) < 128;
}

// A finder pattern: a dark 7x7 ring, a light ring inside it, a dark 3x3 core.
bool finderAt(const QImage& image, int left, int top) {
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 7; ++x) {
            const bool ring = x == 0 || y == 0 || x == 6 || y == 6;
            const bool core = x >= 2 && x <= 4 && y >= 2 && y <= 4;
            if (dark(image, left + x, top + y) != (ring || core)) return false;
        }
    return true;
}

TEST(QrImage, SizeQuietZoneAndFinderPatterns) {
    const QImage image = qrImage("http://192.168.1.20:7766/join");
    ASSERT_FALSE(image.isNull());
    ASSERT_EQ(image.width(), image.height());
    ASSERT_EQ(image.width() % px, 0);
    const int modules = image.width() / px - 2 * quiet;
    // Versions are 21 + 4n modules wide.
    EXPECT_GE(modules, 21);
    EXPECT_EQ((modules - 21) % 4, 0);

    for (int i = 0; i < image.width(); ++i)
        for (int band = 0; band < quiet * px; ++band) {
            const int far = image.width() - 1 - band;
            ASSERT_EQ(qGray(image.pixel(i, band)), 255) << i << "," << band;
            ASSERT_EQ(qGray(image.pixel(band, i)), 255);
            ASSERT_EQ(qGray(image.pixel(i, far)), 255);
            ASSERT_EQ(qGray(image.pixel(far, i)), 255);
        }
    EXPECT_TRUE(finderAt(image, 0, 0));
    EXPECT_TRUE(finderAt(image, modules - 7, 0));
    EXPECT_TRUE(finderAt(image, 0, modules - 7));
    EXPECT_FALSE(finderAt(image, modules - 7, modules - 7));

    // Pure black and white, whole modules: no smoothing a camera would blur.
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            const int g = qGray(image.pixel(x, y));
            ASSERT_TRUE(g == 0 || g == 255);
            ASSERT_EQ(g, qGray(image.pixel(x - x % px, y - y % px)));
        }
}

TEST(QrImage, LongerTextNeedsALargerSymbol) {
    const QImage small = qrImage("http://10.0.0.2:7766/join");
    const QImage large = qrImage("http://10.0.0.2:7766/join?" + QString(200, 'x'));
    EXPECT_GT(large.width(), small.width());
    EXPECT_TRUE(qrImage(QString(8000, 'x')).isNull());
}

TEST(QrImage, DecodesToTheLink) {
    if (access("/usr/bin/zbarimg", X_OK) != 0) GTEST_SKIP() << "zbarimg is not installed";
    const QString link = "http://192.168.178.34:7766/join";
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString file = dir.filePath("qr.png");
    ASSERT_TRUE(qrImage(link).save(file, "PNG"));

    const std::string command = "/usr/bin/zbarimg --quiet --raw '" + file.toStdString() + "'";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string out;
    char buffer[256];
    while (size_t n = fread(buffer, 1, sizeof buffer, pipe)) out.append(buffer, n);
    EXPECT_EQ(pclose(pipe), 0);
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    EXPECT_EQ(out, link.toStdString());
}

}  // namespace
}  // namespace vt::ui
