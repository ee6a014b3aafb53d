#pragma once

#include <foundation/storage/provider/ByteStreamFailure.hpp>
