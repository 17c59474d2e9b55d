// Writes the program's icon for the desktop's icon theme: <dir>/<N>x<N>/apps/velocast.png for
// every size given, and <dir>/scalable/apps/velocast.svg. Run at build time (offscreen).
#include "ui/main_window_icons.h"

#include <QDir>
#include <QGuiApplication>
#include <QPainter>
#include <QSvgGenerator>

#include <cstdio>

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    const QStringList args = QGuiApplication::arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: velocast-icons OUTPUT_DIR SIZE...\n");
        return 2;
    }
    const QDir out(args.at(1));
    for (int i = 2; i < args.size(); ++i) {
        bool ok = false;
        const int size = args.at(i).toInt(&ok);
        if (!ok || size < 8 || size > 1024) {
            std::fprintf(stderr, "velocast-icons: bad size %s\n", qPrintable(args.at(i)));
            return 2;
        }
        const QString dir = QStringLiteral("%1x%1/apps").arg(size);
        const QString file = out.filePath(dir + QStringLiteral("/velocast.png"));
        if (!out.mkpath(dir) || !velocast::velocastIconImage(size).toImage().save(file, "PNG")) {
            std::fprintf(stderr, "velocast-icons: cannot write %s\n", qPrintable(file));
            return 1;
        }
    }

    const int svgSize = 256;
    const QString svgFile = out.filePath(QStringLiteral("scalable/apps/velocast.svg"));
    out.mkpath(QStringLiteral("scalable/apps"));
    QSvgGenerator svg;
    svg.setFileName(svgFile);
    svg.setSize(QSize(svgSize, svgSize));
    svg.setViewBox(QRect(0, 0, svgSize, svgSize));
    svg.setTitle(QStringLiteral("Velocast"));
    {
        QPainter p;
        if (!p.begin(&svg)) {
            std::fprintf(stderr, "velocast-icons: cannot write %s\n", qPrintable(svgFile));
            return 1;
        }
        velocast::paintVelocastIcon(p, svgSize);
    }
    return 0;
}
