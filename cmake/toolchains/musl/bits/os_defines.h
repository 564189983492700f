// Stands before the C++ library's own file of this name, which describes glibc and does not compile
// against another C library: of musl there is nothing that the C++ headers would have to be told.
