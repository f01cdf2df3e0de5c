// A header of the program's own.
#pragma once

struct Interface {
    char const* name;
};
