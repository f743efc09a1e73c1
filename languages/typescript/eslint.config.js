// @ts-check
import tseslint from "typescript-eslint";

export default tseslint.config(
  { ignores: ["build/", "dist/", "node_modules/", "test/generated/"] },
  tseslint.configs.strictTypeChecked,
  tseslint.configs.stylisticTypeChecked,
  {
    languageOptions: {
      parserOptions: {
        project: ["./tsconfig.json"],
        tsconfigRootDir: import.meta.dirname,
      },
    },
    rules: {
      // An expression that is given back is what an arrow function is for.
      "@typescript-eslint/no-confusing-void-expression": "off",
      "@typescript-eslint/restrict-template-expressions": [
        "error",
        { allowNumber: true },
      ],
      // What the compiler can't know of a look into a list, its author does.
      "@typescript-eslint/no-non-null-assertion": "off",
      "@typescript-eslint/non-nullable-type-assertion-style": "off",
    },
  },
  {
    // Tests are built against the package, and so need no second look at its types.
    files: ["**/*.js", "**/*.mjs", "test/**"],
    extends: [tseslint.configs.disableTypeChecked],
  },
);
