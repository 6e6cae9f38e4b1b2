#include "json_spirit/access.h"
#include "json_spirit/value.h"
#include "qmrt/log.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>
