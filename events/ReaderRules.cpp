#include "ReaderRules.h"

ReaderRules::ReaderRules(QStringList ignorePatterns, QVector<Alias> aliases)
    : ignorePatterns(std::move(ignorePatterns)), aliases(std::move(aliases))
{
}

ReaderRules::Alias ReaderRules::parseAlias(const QString& text)
{
    const int arrow = text.indexOf(QLatin1String("=>"));
    if (arrow < 0)
        return {};
    const QString pattern = text.left(arrow).trimmed();
    const QString name = text.mid(arrow + 2).trimmed();
    if (pattern.isEmpty() || name.isEmpty())
        return {};
    return {pattern, name};
}

bool ReaderRules::ignores(const QString& readerName) const
{
    for (const QString& pattern : ignorePatterns) {
        if (matches(pattern, readerName))
            return true;
    }
    return false;
}

QString ReaderRules::displayName(const QString& readerName) const
{
    for (const Alias& alias : aliases) {
        if (matches(alias.pattern, readerName))
            return alias.displayName;
    }
    return readerName;
}

// Plain glob matching with backtracking to the last star: linear enough for reader names.
bool ReaderRules::matches(const QString& pattern, const QString& name)
{
    int p = 0;
    int n = 0;
    int star = -1;
    int resume = 0;
    while (n < name.size()) {
        if (p < pattern.size() && (pattern[p] == QLatin1Char('?')
                                   || pattern[p].toCaseFolded() == name[n].toCaseFolded())) {
            ++p;
            ++n;
        } else if (p < pattern.size() && pattern[p] == QLatin1Char('*')) {
            star = p++;
            resume = n;
        } else if (star >= 0) {
            p = star + 1;
            n = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == QLatin1Char('*'))
        ++p;
    return p == pattern.size();
}
