#pragma once

/// SQLite's flags as the plug-in gives them: to read and write, and to create the file.
inline constexpr int kReadWrite = 2;
inline constexpr int kReadWriteCreate = 6;
