<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

/**
 * What somebody has typed into the form of a group and is not saved yet.
 */
final class Draft
{
    /** @var array<?string> key => the value now, of the keys that others have changed meanwhile; null: it is gone */
    public array $conflicts = [];

    /**
     * @param string $group its name
     * @param array<?string> $was key => what the form was drawn with; null: there was no such key
     * @param array<string> $now key => what it holds
     */
    public function __construct(
        public readonly string $group,
        public array $was = [],
        public array $now = [],
        public string $newKey = '',
        public string $newValue = ''
    ) {
    }

    /**
     * The keys that were edited, with what was typed.
     *
     * @return array<string>
     */
    public function edits(): array
    {
        $isEdited = fn(string|int $key): bool => ($this->was[$key] ?? null) !== $this->now[$key];
        return array_filter($this->now, $isEdited, ARRAY_FILTER_USE_KEY);
    }

    /**
     * Leaves a key as it is.
     */
    public function drop(string $key): void
    {
        unset($this->was[$key], $this->now[$key]);
    }
}
