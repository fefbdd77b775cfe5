// Asio compiled once for the fuzz targets (the headers they include expect it).
#include <boost/asio/impl/src.hpp>
