// Foundation defines Nil (and nil) as macros: a type of that name breaks.
// expect: anonymous struct|expected
#import <Foundation/Foundation.h>

struct Nil {
    bool operator==(const Nil &) const = default;
};
