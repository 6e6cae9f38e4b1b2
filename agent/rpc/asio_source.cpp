// The one place where the networking library itself is compiled: see
// BOOST_ASIO_SEPARATE_COMPILATION in this folder's CMakeLists.txt.
#include <boost/asio/impl/src.hpp>
#include <boost/asio/ssl/impl/src.hpp>
#include <boost/beast/src.hpp>
