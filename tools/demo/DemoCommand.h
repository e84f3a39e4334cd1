#pragma once

#include "HexBytes.h"

#include <QString>

#include <string>

// One line typed at the demo's prompt.
struct DemoCommand
{
    enum class Kind { None, Tag, Acos, Remove, Help, Quit, Invalid };

    // Blank lines and lines starting with '#' are None, so command files may be commented.
    static DemoCommand parse(const std::string& line);

    // What the service should send for the card: "TAG" or "SC", with the id as tag_id.
    QString messageType() const;
    QString idText() const;

    Kind kind = Kind::None;
    int reader = -1;
    VirtualCards::Bytes id;
    std::string problem; // for Invalid
};

extern const char demoCommandHelp[];
