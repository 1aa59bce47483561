#pragma once

// GET /ingestion[?control=...]: shows and turns the switches of the ingestion paths.
void rest_ingestion_control_init();
