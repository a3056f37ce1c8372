import tseslint from 'typescript-eslint';

export default tseslint.config(
  { ignores: ['**/rpc/**', '**/home/**', 'dist/**', 'eslint.config.js'] },
  ...tseslint.configs.strictTypeChecked,
  {
    languageOptions: { parserOptions: { projectService: true } },
    rules: {
      '@typescript-eslint/restrict-template-expressions': ['error', { allowNumber: true }],
    },
  },
);
