#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

// The administrator's say over readers: which to leave alone (a security key, a SAM slot)
// and which stable display name to give a reader whatever index suffix PC/SC gives it after
// a replug. Patterns use * (any run of characters) and ? (one character), without case.
class ReaderRules
{
public:
    struct Alias
    {
        QString pattern;
        QString displayName;
    };

    ReaderRules() = default;
    ReaderRules(QStringList ignorePatterns, QVector<Alias> aliases);

    // "pattern => Display name"; nullopt-like empty pattern when the text is not of that shape.
    static Alias parseAlias(const QString& text);

    bool ignores(const QString& readerName) const;
    // The first alias whose pattern matches, else the name itself.
    QString displayName(const QString& readerName) const;
    bool isEmpty() const { return ignorePatterns.isEmpty() && aliases.isEmpty(); }

    static bool matches(const QString& pattern, const QString& name);

private:
    QStringList ignorePatterns;
    QVector<Alias> aliases;
};
