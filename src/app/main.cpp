// Velocast entry point. The windows are not built yet: for now the program says so
// plainly and shows the identity it would present to a receiver.
#include "common/preferences.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    out << "Velocast (early build): the control channel, connect code and push engine are in place;\n"
           "the casting windows are not built yet, so there is nothing to show on screen.\n"
        << "This computer would present itself to receivers as: " << velocast::CurrentDisplayName() << "\n";
    return 0;
}
