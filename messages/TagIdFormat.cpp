#include "TagIdFormat.h"

#include <algorithm>
#include <vector>

std::optional<TagIdFormat> TagIdFormat::fromSetting(const QString& value)
{
    const QString word = value.trimmed().toLower();
    if (word == QLatin1String("hex"))
        return TagIdFormat(Form::Hex);
    if (word == QLatin1String("hex-reversed"))
        return TagIdFormat(Form::HexReversed);
    if (word == QLatin1String("decimal"))
        return TagIdFormat(Form::Decimal);
    if (word == QLatin1String("decimal-reversed"))
        return TagIdFormat(Form::DecimalReversed);
    return std::nullopt;
}

QString TagIdFormat::render(const QByteArray& uid) const
{
    QByteArray bytes = uid;
    if (form == Form::HexReversed || form == Form::DecimalReversed)
        std::reverse(bytes.begin(), bytes.end());
    return form == Form::Hex || form == Form::HexReversed ? hex(bytes) : decimal(bytes);
}

QString TagIdFormat::hex(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toHex());
}

// UIDs run to 10 bytes, past any built-in integer: long division by 10 over the bytes.
QString TagIdFormat::decimal(const QByteArray& bigEndian)
{
    std::vector<unsigned> number(bigEndian.begin(), bigEndian.end());
    for (unsigned& byte : number)
        byte &= 0xFF;
    QString digits;
    auto nonZero = [](unsigned byte) { return byte != 0; };
    while (std::any_of(number.begin(), number.end(), nonZero)) {
        unsigned remainder = 0;
        for (unsigned& byte : number) {
            const unsigned value = remainder * 256 + byte;
            byte = value / 10;
            remainder = value % 10;
        }
        digits.prepend(QChar('0' + static_cast<char>(remainder)));
    }
    return digits.isEmpty() ? QStringLiteral("0") : digits;
}
