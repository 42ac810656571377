#pragma once

#include <string>

#include "VellumApp/Delivery.hpp"
#include "VellumCore/Json/Document.hpp"

// What a rendering did, as text for people and as a JSON record. In a record a figure that is not finite has
// no key.
namespace vellum::DeliverReport {

std::string textBlock(const DeliverySettings& settings, const Delivery& delivery);
Json::Object record(const DeliverySettings& settings, const Delivery& delivery);

std::string textBlock(const LimitSettings& settings, const Delivery& delivery);
Json::Object record(const LimitSettings& settings, const Delivery& delivery);

// How far the true peak that was reached is above the ceiling asked for, in dB; 0 or less where it holds.
double excessDB(const LimitSettings& settings, const Delivery& delivery);

}  // namespace vellum::DeliverReport
