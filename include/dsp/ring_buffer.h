#pragma once
// (being written)
