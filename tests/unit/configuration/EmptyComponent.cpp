// A component library that loads but offers no service, for the start-up
// failure of the configuration management service.
extern "C" int cmTestEmptyComponent() { return 0; }
