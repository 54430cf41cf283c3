// The two built-in filter sets over the generated tables in filter_tables.cpp.
#include "resample/filter_set.h"

namespace kavolib {

FilterSet largeFilter() {
    return FilterSet{largeFilterCoeffs, largeFilterDifferences, 14746, 65, 8192};
}

FilterSet smallFilter() {
    return FilterSet{smallFilterCoeffs, smallFilterDifferences, 13128, 13, 1536};
}

}  // namespace kavolib
