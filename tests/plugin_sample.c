/* plugin_sample.c - a tiny plug-in for the loader test: one function and one datum. */
__attribute__((visibility("default"))) int ltPluginSampleAnswer(void)
{
    return 42;
}

__attribute__((visibility("default"))) const char ltPluginSampleName[] = "sample plug-in";
