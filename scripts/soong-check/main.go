// soong-check reads Android.bp files with Soong's own module types, so that a misspelt or
// misplaced property, or a value of the wrong type, fails here and not in the device build. The
// Soong is Debian's (golang-android-soong-dev, of the Android 11 tree); build.sh builds this
// program from it and scripts/check-android-bp.sh runs it. It also checks that every test a
// TEST_MAPPING names is a cc_test of the given files.
//
//	soong-check FILE...    Android.bp and TEST_MAPPING files
//
// Errors go to standard error as FILE:LINE:COL: MESSAGE, in Soong's words; notes go to standard
// output. The exit status is 1 when there was an error.
package main

import (
	"encoding/json"
	"errors"
	"fmt"
	"os"
	"path/filepath"
	"regexp"
	"sort"

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
	types     map[string]string // module name -> module type
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
		if name, ok := m.GetProperty("name"); ok {
			if s, ok := name.Value.(*parser.String); ok {
				c.types[s.Value] = m.Type
			}
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

// TEST_MAPPING may hold whole-line // comments, which JSON does not allow.
var comment = regexp.MustCompile(`(?m)^\s*//.*$`)

func (c *checker) checkTestMapping(path string) {
	text, err := os.ReadFile(path)
	if err != nil {
		c.fail("%v", err)
		return
	}
	var groups map[string]json.RawMessage
	if err := json.Unmarshal(comment.ReplaceAll(text, nil), &groups); err != nil {
		c.fail("%s: not JSON: %v", path, err)
		return
	}
	delete(groups, "imports") // names folders, not tests
	keys := make([]string, 0, len(groups))
	for group := range groups {
		keys = append(keys, group)
	}
	sort.Strings(keys)
	for _, group := range keys {
		var tests []struct {
			Name *string `json:"name"`
		}
		if err := json.Unmarshal(groups[group], &tests); err != nil {
			c.fail("%s: %s: not a list of tests", path, group)
			continue
		}
		for _, test := range tests {
			switch {
			case test.Name == nil:
				c.fail("%s: %s: a test without a name", path, group)
			case c.types[*test.Name] != "cc_test":
				c.fail("%s: %s: %q is not a cc_test module of the tree", path, group, *test.Name)
			}
		}
	}
}

func main() {
	if len(os.Args) < 2 {
		fmt.Fprintln(os.Stderr, "usage: soong-check FILE...   (Android.bp and TEST_MAPPING files)")
		os.Exit(2)
	}
	c := &checker{factories: android.ModuleTypeFactories(), types: map[string]string{}}
	var mappings []string
	for _, path := range os.Args[1:] {
		if filepath.Base(path) == "TEST_MAPPING" {
			mappings = append(mappings, path)
		} else {
			c.checkBlueprint(path)
		}
	}
	for _, path := range mappings {
		c.checkTestMapping(path)
	}
	if c.failed {
		os.Exit(1)
	}
}
