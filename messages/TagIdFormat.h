#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// How a tag's UID is written as "tag_id": badge systems print it in one of these forms.
class TagIdFormat
{
public:
    enum class Form
    {
        Hex,
        HexReversed,
        Decimal,
        DecimalReversed
    };

    TagIdFormat() = default;
    explicit TagIdFormat(Form form) : form(form) {}

    // The setting's words: "hex", "hex-reversed", "decimal", "decimal-reversed"; nothing else.
    static std::optional<TagIdFormat> fromSetting(const QString& value);

    // Hex is two lower-case digits a byte; decimal is the unsigned value of the bytes read
    // as one big-endian number, without leading zeros. "Reversed" takes the bytes in the
    // opposite order first.
    QString render(const QByteArray& uid) const;

    static QString hex(const QByteArray& bytes);

private:
    static QString decimal(const QByteArray& bigEndian);

    Form form = Form::Hex;
};
