#include "ReaderName.h"

#include <QTextCodec>

namespace ReaderName {

QString toText(const std::string& bytes)
{
    const int size = static_cast<int>(bytes.size());
    // IgnoreHeader keeps a leading byte-order mark as part of the name.
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    const QString utf8 = QTextCodec::codecForMib(106)->toUnicode(bytes.data(), size, &state);
    if (state.invalidChars == 0 && state.remainingChars == 0)
        return utf8;
    return QString::fromLatin1(bytes.data(), size);
}

} // namespace ReaderName
