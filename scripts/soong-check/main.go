// soong-check reads Android.bp files with Soong's own module types, so that a misspelt or
// misplaced property, or a value of the wrong type, fails here and not in the device build. The
// Soong is Debian's (golang-android-soong-dev, of the Android 11 tree); build.sh builds this
// program from it and scripts/check-android-bp.sh runs it.
//
//	soong-check ANDROID.BP...
//
// Errors go to standard error as FILE:LINE:COL: MESSAGE, in Soong's words; notes go to standard
// output. The exit status is 1 when there was an error.
package main

import (
	"errors"
	"fmt"
	"os"

	"android/soong/android"
	_ "android/soong/cc" // registers the cc_* module types
	"github.com/google/blueprint/parser"
	"github.com/google/blueprint/proptools"
)

// Properties that the device build uses and that this Soong is too old to know: reported as a
// note, not as an error, and their values are not checked. Property is as Soong names it in its
// message ("test_options.unit_test"); an empty module type matches every type. The tree needs
// none today.
var newerProperties = []struct {
	property, moduleType, android string
}{}

type checker struct {
	factories map[string]android.ModuleFactory
	failed    bool
}

func (c *checker) fail(format string, args ...interface{}) {
	fmt.Fprintf(os.Stderr, format+"\n", args...)
	c.failed = true
}

func (c *checker) checkBlueprint(path string) {
	f, err := os.Open(path)
	if err != nil {
		c.fail("%v", err)
		return
	}
	defer f.Close()
	file, errs := parser.ParseAndEval(path, f, parser.NewScope(nil))
	for _, err := range errs {
		c.fail("%v", err)
	}
	if len(errs) > 0 {
		return
	}
	for _, def := range file.Defs {
		m, ok := def.(*parser.Module)
		if !ok {
			continue
		}
		factory, ok := c.factories[m.Type]
		if !ok {
			c.fail("%s: unrecognized module type %q", m.TypePos, m.Type)
			continue
		}
		_, errs := proptools.UnpackProperties(m.Properties, factory().GetProperties()...)
		for _, err := range errs {
			if note := newerNote(m.Type, err); note != "" {
				fmt.Printf("%s: %s\n", path, note)
			} else {
				c.fail("%v", err)
			}
		}
	}
}

// newerNote returns the note for an unrecognized property of the allow-list, else "".
func newerNote(moduleType string, err error) string {
	var unpackErr *proptools.UnpackError
	if !errors.As(err, &unpackErr) {
		return ""
	}
	for _, p := range newerProperties {
		if (p.moduleType == "" || p.moduleType == moduleType) &&
			unpackErr.Err.Error() == fmt.Sprintf("unrecognized property %q", p.property) {
			return fmt.Sprintf("property %s of %s is newer than the Soong in Debian (Android %s); not checked",
				p.property, moduleType, p.android)
		}
	}
	return ""
}

func main() {
	if len(os.Args) < 2 {
		fmt.Fprintln(os.Stderr, "usage: soong-check ANDROID.BP...")
		os.Exit(2)
	}
	c := &checker{factories: android.ModuleTypeFactories()}
	for _, path := range os.Args[1:] {
		c.checkBlueprint(path)
	}
	if c.failed {
		os.Exit(1)
	}
}
